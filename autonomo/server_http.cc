#include "autonomo/server_http.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "autonomo/pagine.h"
#include "core/log.h"
#include "web/invio_file.h"

namespace nvr::autonomo {

struct ServerHttp::Dentro {
  std::shared_ptr<const Instradatore> rotte;
  httplib::Server server;
  std::atomic<bool> fermato{false};
};

namespace {

Richiesta richiesta_da(const httplib::Request& req) {
  Richiesta r;
  r.metodo = req.method;
  for (const auto& [k, v] : req.params) r.query.emplace(k, v);  // the first value stays
  r.corpo = corpo_da_testo(req.body);
  for (const auto& [k, v] : req.headers) r.intestazioni.emplace(nome_intestazione(k), v);
  r.intestazioni[kCorpoGrezzo] = req.body;
  return r;
}

void invia_json(httplib::Response& res, int status, const Json& corpo) {
  res.status = status;
  res.set_content(corpo.dump(-1, ' ', false, Json::error_handler_t::replace), "application/json");
}

// Streams the planned bytes of a file straight from disk: a recording may be hundreds of MB.
void invia_file(const httplib::Request& req, httplib::Response& res, const Richiesta& r,
                const FileDaInviare& file) {
  const int fd = ::open(file.percorso.c_str(), O_RDONLY | O_CLOEXEC);
  auto info = fd >= 0 ? info_file(file.percorso) : std::nullopt;
  if (!info) {
    if (fd >= 0) ::close(fd);
    invia_json(res, 404, {{"status", "error"}, {"message", "Registrazione non trovata"}});
    return;
  }
  PianoInvio piano = pianifica_invio(file, *info, r.intestazioni);
  res.status = piano.status;
  for (const auto& [k, v] : piano.intestazioni)
    // The server library writes its own length and type from the content provider.
    if (k != "Content-Length" && k != "Content-Type") res.set_header(k, v);
  // The plan already chose the bytes; left in place, the library would cut the range a second
  // time out of the planned slice.
  const_cast<httplib::Request&>(req).ranges.clear();
  if (piano.lunghezza <= 0) {
    ::close(fd);
    return;
  }
  const std::int64_t inizio = piano.inizio;
  // Each piece costs the library a wait for the socket to be writable and a send: pieces of up
  // to 1 MiB keep that cost small against the copy itself. Allocated once per answer, and no
  // larger than the answer.
  auto blocco = std::make_shared<std::vector<char>>(
      static_cast<std::size_t>(std::min<std::int64_t>(piano.lunghezza, 1 << 20)));
  res.set_content_provider(
      static_cast<std::size_t>(piano.lunghezza), file.tipo,
      [fd, inizio, blocco](std::size_t offset, std::size_t lunghezza, httplib::DataSink& sink) {
        const std::size_t quanti = std::min(lunghezza, blocco->size());
        const ssize_t n = ::pread(fd, blocco->data(), quanti, static_cast<off_t>(inizio + offset));
        if (n <= 0) return false;  // the file shrank under us: the connection is dropped
        return sink.write(blocco->data(), static_cast<std::size_t>(n));
      },
      [fd](bool) { ::close(fd); });
}

void invia(const httplib::Request& req, httplib::Response& res, const Richiesta& r,
           const Risposta& risposta) {
  if (risposta.file) {
    invia_file(req, res, r, *risposta.file);
  } else {
    invia_json(res, risposta.status, risposta.corpo);
  }
  for (const auto& [k, v] : risposta.intestazioni) res.set_header(k, v);
}

bool porta_occupata(const std::string& indirizzo, int porta) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  int si = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &si, sizeof(si));
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_port = htons(static_cast<std::uint16_t>(porta));
  bool occupata = false;
  if (::inet_pton(AF_INET, indirizzo.c_str(), &ind.sin_addr) == 1)
    occupata =
        ::bind(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)) != 0 && errno == EADDRINUSE;
  ::close(fd);
  return occupata;
}

}  // namespace

ServerHttp::ServerHttp(std::shared_ptr<const Instradatore> rotte) : d_(std::make_unique<Dentro>()) {
  d_->rotte = std::move(rotte);
  auto gestisci = [d = d_.get()](const httplib::Request& req, httplib::Response& res) {
    Richiesta r = richiesta_da(req);
    if (req.path == "/api" || req.path.starts_with("/api/")) {
      Risposta risposta = d->rotte->instrada(req.path, r);  // r stays: file answers read it
      invia(req, res, r, risposta);
      return;
    }
    auto pagina = pagina_per(req.path);
    if (!pagina) {
      invia_json(res, 404, {{"status", "error"}, {"message", "Risorsa non trovata"}});
    } else if (req.method != "GET" && req.method != "HEAD") {
      invia_json(res, 405, {{"status", "error"}, {"message", "Metodo non permesso"}});
    } else {
      res.status = 200;
      res.set_content(pagina->dati.data(), pagina->dati.size(), tipo_di(pagina->nome));
    }
  };
  auto& s = d_->server;
  s.Get(".*", gestisci);
  s.Post(".*", gestisci);
  s.Put(".*", gestisci);
  s.Patch(".*", gestisci);
  s.Delete(".*", gestisci);
  s.Options(".*", gestisci);
  s.set_exception_handler([](const httplib::Request& req, httplib::Response& res,
                             std::exception_ptr e) {
    std::string testo = "errore sconosciuto";
    try {
      std::rethrow_exception(e);
    } catch (const std::exception& x) {
      testo = x.what();
    } catch (...) {
    }
    _log("errore nella richiesta " + req.method + " " + req.path + ": " + testo);
    invia_json(res, 500, {{"status", "error"}, {"message", "Errore interno del server: " + testo}});
  });
}

ServerHttp::~ServerHttp() { ferma(); }

Esito<int> ServerHttp::apri(const std::string& indirizzo, int porta) {
  if (d_->server.bind_to_port(indirizzo, porta)) return porta;
  if (porta_occupata(indirizzo, porta))
    return Errore{EADDRINUSE, "Porta " + std::to_string(porta) +
                                  " gia' in uso: scegli un'altra porta con --porta"};
  return Errore{EINVAL, "Indirizzo " + indirizzo + ":" + std::to_string(porta) +
                            " non utilizzabile: controlla --indirizzo e --porta"};
}

bool ServerHttp::servi() {
  const bool ok = d_->server.listen_after_bind();
  return ok || d_->fermato.load();
}

void ServerHttp::ferma() {
  d_->fermato = true;
  d_->server.stop();
}

}  // namespace nvr::autonomo
