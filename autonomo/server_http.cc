#include "autonomo/server_http.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "autonomo/lavoratori.h"
#include "autonomo/pagine.h"
#include "core/log.h"
#include "web/invio_file.h"

namespace nvr::autonomo {

namespace {

using Orologio = std::chrono::steady_clock;

double adesso() {
  return std::chrono::duration<double>(Orologio::now().time_since_epoch()).count();
}

// Where a connection is in its request, for the time limits.
enum class Fase { kIntestazioni, kCorpo, kRisposta };
struct Connessione {
  int fd = -1;
  Fase fase = Fase::kIntestazioni;
  double dal = 0;
  bool chiusa = false;  // already shut down by the time limits
};

bool scaduta(const Connessione& c, const LimitiServer& limiti, double ora) {
  switch (c.fase) {
    case Fase::kIntestazioni:
      return ora - c.dal > limiti.secondi_intestazioni;
    case Fase::kCorpo:
      return ora - c.dal > limiti.secondi_corpo;
    case Fase::kRisposta:
      return false;
  }
  return false;
}

// One request, from its headers to the end of its answer.
struct Domanda {
  std::string corpo;
  bool troppo_grande = false;
  bool affidata = false;           // handed to a worker; the connection is suspended
  std::optional<Risposta> pronta;  // the worker's answer, read after the resume
  std::optional<Richiesta> richiesta;
};

struct Trasmissione;

}  // namespace

struct StatoServer {
  std::shared_ptr<const Instradatore> rotte;
  LimitiServer limiti;
  std::string certificato, chiave;  // PEM; empty: plain HTTP. Must outlive the daemon
  int ascolto = -1;
  MHD_Daemon* demone = nullptr;
  Lavoratori lavoratori{32};  // a live request waits up to 7 s for its first bytes

  std::mutex m;
  std::condition_variable cv;
  bool fermato = false;                                  // guarded by m
  std::map<MHD_Connection*, Connessione> connessioni;    // guarded by m
  std::set<std::shared_ptr<Trasmissione>> trasmissioni;  // guarded by m

  void fase(MHD_Connection* c, Fase f) {
    std::lock_guard l(m);
    if (auto it = connessioni.find(c); it != connessioni.end()) {
      it->second.fase = f;
      it->second.dal = adesso();
    }
  }
  bool chiudendo() {
    std::lock_guard l(m);
    return fermato;
  }
};

namespace {

// A streamed answer. Its connection is suspended while the stream has nothing to send and
// resumed by the stream's wake-up, which may come from any thread at any time, even after the
// connection is gone: hence the flags, under `m`.
struct Trasmissione {
  std::shared_ptr<Flusso> flusso;
  MHD_Connection* connessione = nullptr;
  StatoServer* server = nullptr;
  std::mutex m;
  bool sospesa = false;    // guarded by m
  bool svegliata = false;  // guarded by m
  bool finita = false;     // guarded by m: the connection is done with us

  void riprendi() {
    std::lock_guard l(m);
    svegliata = true;
    if (sospesa && !finita) {
      sospesa = false;
      MHD_resume_connection(connessione);
    }
  }
};

struct Lettore {  // what the library holds for a streamed answer
  std::shared_ptr<Trasmissione> t;
};

ssize_t leggi_flusso(void* cls, std::uint64_t, char* dove, std::size_t max) {
  const std::shared_ptr<Trasmissione>& t = static_cast<Lettore*>(cls)->t;
  for (;;) {
    if (t->server->chiudendo()) return MHD_CONTENT_READER_END_WITH_ERROR;
    std::size_t n = 0;
    std::weak_ptr<Trasmissione> debole = t;
    Flusso::Lettura l = t->flusso->leggi(dove, max, n, [debole] {
      if (auto forte = debole.lock()) forte->riprendi();
    });
    if (l == Flusso::Lettura::kDati) return static_cast<ssize_t>(n);
    if (l == Flusso::Lettura::kFine) return MHD_CONTENT_READER_END_OF_STREAM;
    std::lock_guard g(t->m);
    if (t->svegliata) {  // woken between the read and now: read again
      t->svegliata = false;
      continue;
    }
    t->sospesa = true;
    MHD_suspend_connection(t->connessione);
    return 0;
  }
}

void libera_flusso(void* cls) {
  auto* lettore = static_cast<Lettore*>(cls);
  {
    std::lock_guard l(lettore->t->m);
    lettore->t->finita = true;
  }
  StatoServer* d = lettore->t->server;
  {
    std::lock_guard l(d->m);
    d->trasmissioni.erase(lettore->t);
  }
  delete lettore;
}

MHD_Result accoda(MHD_Connection* c, int status, MHD_Response* r,
                  const std::vector<std::pair<std::string, std::string>>& intestazioni) {
  if (!r) return MHD_NO;
  for (const auto& [k, v] : intestazioni) MHD_add_response_header(r, k.c_str(), v.c_str());
  MHD_Result esito = MHD_queue_response(c, static_cast<unsigned>(status), r);
  MHD_destroy_response(r);
  return esito;
}

MHD_Result accoda_json(MHD_Connection* c, int status, const Json& corpo,
                       std::vector<std::pair<std::string, std::string>> intestazioni = {}) {
  const std::string testo = corpo.dump(-1, ' ', false, Json::error_handler_t::replace);
  intestazioni.insert(intestazioni.begin(), {"Content-Type", "application/json"});
  return accoda(c, status,
                MHD_create_response_from_buffer(testo.size(), const_cast<char*>(testo.data()),
                                                MHD_RESPMEM_MUST_COPY),
                intestazioni);
}

// A file straight from disk (the kernel copies it): a recording may be hundreds of MB.
MHD_Result accoda_file(MHD_Connection* c, const Richiesta& r, const Risposta& risposta) {
  const FileDaInviare& file = *risposta.file;
  const int fd = ::open(file.percorso.c_str(), O_RDONLY | O_CLOEXEC);
  auto info = fd >= 0 ? info_file(file.percorso) : std::nullopt;
  if (!info) {
    if (fd >= 0) ::close(fd);
    return accoda_json(c, 404, {{"status", "error"}, {"message", "Registrazione non trovata"}});
  }
  PianoInvio piano = pianifica_invio(file, *info, r.intestazioni);
  // A header the handler gives replaces the planned one of that name (its own caching).
  auto dal_gestore = [&](const std::string& nome) {
    return std::any_of(
        risposta.intestazioni.begin(), risposta.intestazioni.end(),
        [&](const auto& h) { return nome_intestazione(h.first) == nome_intestazione(nome); });
  };
  std::vector<std::pair<std::string, std::string>> intestazioni;
  for (const auto& [k, v] : piano.intestazioni)
    if (k != "Content-Length" && !dal_gestore(k))  // the library writes the length
      intestazioni.emplace_back(k, v);
  intestazioni.insert(intestazioni.end(), risposta.intestazioni.begin(),
                      risposta.intestazioni.end());
  MHD_Response* corpo = nullptr;
  if (piano.lunghezza > 0) {
    corpo = MHD_create_response_from_fd_at_offset64(static_cast<std::uint64_t>(piano.lunghezza), fd,
                                                    static_cast<std::uint64_t>(piano.inizio));
  } else {
    ::close(fd);
    corpo = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
  }
  return accoda(c, piano.status, corpo, intestazioni);
}

MHD_Result accoda_flusso(StatoServer* d, MHD_Connection* c, const Risposta& risposta) {
  auto t = std::make_shared<Trasmissione>();
  t->flusso = risposta.flusso;
  t->connessione = c;
  t->server = d;
  {
    std::lock_guard l(d->m);
    d->trasmissioni.insert(t);
  }
  auto* lettore = new Lettore{t};
  // A body of known length goes out with Content-Length (a download shows its progress) and in
  // bigger pieces: it is read from disk as fast as the client takes it.
  const std::optional<std::uint64_t> lunghezza = risposta.flusso->lunghezza();
  MHD_Response* r = MHD_create_response_from_callback(
      lunghezza.value_or(MHD_SIZE_UNKNOWN), lunghezza ? 1024 * 1024 : 64 * 1024, leggi_flusso,
      lettore, libera_flusso);
  if (!r) {
    libera_flusso(lettore);
    return MHD_NO;
  }
  auto intestazioni = risposta.intestazioni;
  intestazioni.insert(intestazioni.begin(), {"Content-Type", risposta.flusso->tipo()});
  intestazioni.emplace_back("Cache-Control", "no-store");
  return accoda(c, risposta.status, r, intestazioni);
}

MHD_Result accoda_risposta(StatoServer* d, MHD_Connection* c, const Richiesta& r,
                           const Risposta& risposta) {
  if (risposta.file) return accoda_file(c, r, risposta);
  if (risposta.flusso) return accoda_flusso(d, c, risposta);
  return accoda_json(c, risposta.status, risposta.corpo, risposta.intestazioni);
}

MHD_Result aggiungi_valore(void* cls, MHD_ValueKind tipo, const char* chiave, const char* valore) {
  auto* r = static_cast<Richiesta*>(cls);
  const std::string v = valore ? valore : "";
  if (tipo == MHD_GET_ARGUMENT_KIND)
    r->query.emplace(chiave, v);  // the first value stays
  else
    r->intestazioni.emplace(nome_intestazione(chiave), v);
  return MHD_YES;
}

// The peer's address as text, "" when the library does not tell.
std::string indirizzo_cliente(MHD_Connection* c) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (!info || !info->client_addr) return "";
  char testo[INET6_ADDRSTRLEN] = "";
  const sockaddr* a = info->client_addr;
  if (a->sa_family == AF_INET)
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(a)->sin_addr, testo, sizeof testo);
  else if (a->sa_family == AF_INET6)
    ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr, testo,
                sizeof testo);
  return testo;
}

Richiesta richiesta_da(MHD_Connection* c, const char* metodo, const std::string& corpo) {
  Richiesta r;
  r.metodo = metodo;
  MHD_get_connection_values(c, MHD_GET_ARGUMENT_KIND, aggiungi_valore, &r);
  MHD_get_connection_values(c, MHD_HEADER_KIND, aggiungi_valore, &r);
  r.corpo = corpo_da_testo(corpo);
  r.intestazioni[kCorpoGrezzo] = corpo;
  r.intestazioni[kIndirizzoCliente] = indirizzo_cliente(c);
  return r;
}

MHD_Result accoda_pagina(MHD_Connection* c, const std::string& percorso,
                         const std::string& metodo) {
  auto pagina = pagina_per(percorso);
  if (!pagina)
    return accoda_json(c, 404, {{"status", "error"}, {"message", "Risorsa non trovata"}});
  if (metodo != "GET" && metodo != "HEAD")
    return accoda_json(c, 405, {{"status", "error"}, {"message", "Metodo non permesso"}});
  return accoda(
      c, 200,
      MHD_create_response_from_buffer(pagina->dati.size(), const_cast<char*>(pagina->dati.data()),
                                      MHD_RESPMEM_PERSISTENT),
      {{"Content-Type", tipo_di(pagina->nome)}});
}

Risposta instrada_sicuro(const Instradatore& rotte, const std::string& percorso,
                         const Richiesta& r) {
  try {
    return rotte.instrada(percorso, r);
  } catch (const std::exception& e) {  // the router converts; this is the last net
    _log("errore nella richiesta " + r.metodo + " " + percorso + ": " + e.what());
    return errore_json(std::string("Errore interno del server: ") + e.what(), 500);
  } catch (...) {
    return errore_json("Errore interno del server: errore sconosciuto", 500);
  }
}

std::optional<Risposta> instrada_subito(const Instradatore& rotte, const std::string& percorso,
                                        const Richiesta& r) {
  try {
    return rotte.instrada_subito(percorso, r);
  } catch (...) {  // not expected of a shortcut; the worker then answers
    return std::nullopt;
  }
}

MHD_Result accesso(void* cls, MHD_Connection* c, const char* url, const char* metodo, const char*,
                   const char* dati, std::size_t* quanti, void** stato) {
  auto* d = static_cast<StatoServer*>(cls);
  auto* dom = static_cast<Domanda*>(*stato);
  if (!dom) {  // the headers are in
    *stato = dom = new Domanda;
    d->fase(c, Fase::kCorpo);
    return MHD_YES;
  }
  if (*quanti > 0) {
    if (dom->corpo.size() + *quanti > d->limiti.massimo_corpo) {
      dom->troppo_grande = true;
      dom->corpo.clear();
    } else if (!dom->troppo_grande) {
      dom->corpo.append(dati, *quanti);
    }
    *quanti = 0;
    return MHD_YES;
  }
  if (dom->pronta) return accoda_risposta(d, c, *dom->richiesta, *dom->pronta);
  if (dom->affidata) return MHD_YES;
  d->fase(c, Fase::kRisposta);
  if (dom->troppo_grande)
    return accoda_json(c, 413, {{"status", "error"}, {"message", "Richiesta troppo grande"}});
  const std::string percorso = url;
  // Prometheus looks for /metrics at the root: that one path outside /api goes to the handlers.
  if (percorso != "/api" && !percorso.starts_with("/api/") && percorso != "/metrics")
    return accoda_pagina(c, percorso, metodo);
  dom->richiesta = richiesta_da(c, metodo, dom->corpo);
  // A segment already known in memory goes out from here: a worker would cost two thread
  // wake-ups, more than sending it does.
  if (std::optional<Risposta> subito = instrada_subito(*d->rotte, percorso, *dom->richiesta))
    return accoda_risposta(d, c, *dom->richiesta, *subito);
  dom->affidata = true;
  MHD_suspend_connection(c);
  d->lavoratori.esegui([d, dom, c, percorso] {
    dom->pronta = instrada_sicuro(*d->rotte, percorso, *dom->richiesta);
    MHD_resume_connection(c);  // from here on the connection may go, and `dom` with it
  });
  return MHD_YES;
}

void completata(void* cls, MHD_Connection* c, void** stato, MHD_RequestTerminationCode) {
  delete static_cast<Domanda*>(*stato);
  *stato = nullptr;
  static_cast<StatoServer*>(cls)->fase(c, Fase::kIntestazioni);  // kept alive: next one
}

void notifica(void* cls, MHD_Connection* c, void**, MHD_ConnectionNotificationCode codice) {
  auto* d = static_cast<StatoServer*>(cls);
  std::lock_guard l(d->m);
  if (codice == MHD_CONNECTION_NOTIFY_STARTED) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD);
    d->connessioni[c] = Connessione{info ? info->connect_fd : -1, Fase::kIntestazioni, adesso()};
  } else {
    d->connessioni.erase(c);  // before the library closes the descriptor
  }
}

// Shuts down the connections past their time limit; the network thread then closes them.
void sorveglia(StatoServer* d) {
  std::unique_lock l(d->m);
  while (!d->fermato) {
    const double ora = adesso();
    for (auto& [c, stato] : d->connessioni)
      if (!stato.chiusa && stato.fd >= 0 && scaduta(stato, d->limiti, ora)) {
        ::shutdown(stato.fd, SHUT_RDWR);
        stato.chiusa = true;
      }
    d->cv.wait_for(l, std::chrono::milliseconds(250));
  }
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

// A listening socket on `indirizzo`:`porta`, or -1.
int ascolta(const std::string& indirizzo, int porta) {
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_port = htons(static_cast<std::uint16_t>(porta));
  if (::inet_pton(AF_INET, indirizzo.c_str(), &ind.sin_addr) != 1) return -1;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  int si = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &si, sizeof(si));
  if (::bind(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)) != 0 || ::listen(fd, 256) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

ServerHttp::ServerHttp(std::shared_ptr<const Instradatore> rotte, LimitiServer limiti)
    : d_(std::make_unique<StatoServer>()) {
  d_->rotte = std::move(rotte);
  d_->limiti = limiti;
}

ServerHttp::~ServerHttp() {
  ferma();
  // A handler still running would find its server gone: it keeps it for the rest of the process.
  if (d_->lavoratori.in_corso() > 0)
    (void)d_.release();
  else if (d_->ascolto >= 0 && !d_->demone)
    ::close(d_->ascolto);
}

Esito<int> ServerHttp::apri(const std::string& indirizzo, int porta) {
  d_->ascolto = ascolta(indirizzo, porta);
  if (d_->ascolto >= 0) return porta;
  if (porta_occupata(indirizzo, porta))
    return Errore{EADDRINUSE, "Porta " + std::to_string(porta) +
                                  " gia' in uso: scegli un'altra porta con --porta"};
  return Errore{EINVAL, "Indirizzo " + indirizzo + ":" + std::to_string(porta) +
                            " non utilizzabile: controlla --indirizzo e --porta"};
}

bool ServerHttp::servi() {
  StatoServer* d = d_.get();
  if (d->ascolto < 0) return false;
  // Up to 32 KiB the library takes a connection's memory from malloc; above, each connection
  // maps and unmaps pages of its own, and the unmapping stops every core: it cost more than
  // sending a small range.
  std::vector<MHD_OptionItem> opzioni = {
      {MHD_OPTION_LISTEN_SOCKET, d->ascolto, nullptr},
      {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(completata), d},
      {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(notifica), d},
      {MHD_OPTION_CONNECTION_TIMEOUT, 60, nullptr},
      {MHD_OPTION_PER_IP_CONNECTION_LIMIT, d->limiti.connessioni_per_indirizzo, nullptr},
      {MHD_OPTION_CONNECTION_MEMORY_LIMIT, 32 * 1024, nullptr}};
  unsigned int modo = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME;
  if (!d->certificato.empty()) {
    if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) return false;
    modo |= MHD_USE_TLS;
    // The library keeps the pointers: the texts live in StatoServer as long as the daemon.
    opzioni.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, d->certificato.data()});
    opzioni.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, d->chiave.data()});
  }
  opzioni.push_back({MHD_OPTION_END, 0, nullptr});
  d->demone = MHD_start_daemon(modo, 0, nullptr, nullptr, accesso, d, MHD_OPTION_ARRAY,
                               opzioni.data(), MHD_OPTION_END);
  if (!d->demone) return false;
  std::thread sorvegliante(sorveglia, d);
  {
    std::unique_lock l(d->m);
    d->cv.wait(l, [d] { return d->fermato; });
  }
  sorvegliante.join();
  // Suspended streams must be resumed before the library may stop: they then end.
  std::set<std::shared_ptr<Trasmissione>> aperte;
  {
    std::lock_guard l(d->m);
    aperte = d->trasmissioni;
  }
  for (const auto& t : aperte) t->riprendi();
  for (int i = 0; i < 50 && d->lavoratori.in_corso() > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  if (d->lavoratori.in_corso() == 0) {
    MHD_stop_daemon(d->demone);
    d->demone = nullptr;
    ::close(d->ascolto);
    d->ascolto = -1;
  }
  return true;
}

void ServerHttp::usa_tls(std::string certificato_pem, std::string chiave_pem) {
  d_->certificato = std::move(certificato_pem);
  d_->chiave = std::move(chiave_pem);
}

void ServerHttp::ferma() {
  {
    std::lock_guard l(d_->m);
    d_->fermato = true;
  }
  d_->cv.notify_all();
}

}  // namespace nvr::autonomo
