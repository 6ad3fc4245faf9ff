#include "tests/reliability/richiesta_grezza.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>

#include "core/json.h"

namespace nvr::affidabilita {

namespace {

using Orologio = std::chrono::steady_clock;

int millisecondi_fino(Orologio::time_point fine) {
  const auto resto = std::chrono::duration_cast<std::chrono::milliseconds>(fine - Orologio::now());
  return resto.count() < 0 ? 0 : static_cast<int>(resto.count());
}

// Waits for the socket to be ready for `eventi` before the deadline.
bool pronto(int fd, short eventi, Orologio::time_point fine) {
  for (;;) {
    pollfd p{fd, eventi, 0};
    const int n = ::poll(&p, 1, millisecondi_fino(fine));
    if (n < 0 && errno == EINTR) continue;
    return n > 0;
  }
}

void leggi_testata(RispostaGrezza& r, const std::string& dati, std::size_t fine_testata) {
  r.testata = dati.substr(0, fine_testata);
  // "HTTP/1.1 200 OK"
  const auto spazio = r.testata.find(' ');
  if (r.testata.rfind("HTTP/", 0) == 0 && spazio != std::string::npos)
    r.status = std::atoi(r.testata.c_str() + spazio + 1);
}

}  // namespace

std::string RispostaGrezza::intestazione(const std::string& nome) const {
  std::size_t i = testata.find("\r\n");
  while (i != std::string::npos && i + 2 < testata.size()) {
    const std::size_t inizio = i + 2;
    const std::size_t fine = testata.find("\r\n", inizio);
    const std::string riga =
        testata.substr(inizio, fine == std::string::npos ? std::string::npos : fine - inizio);
    const auto due_punti = riga.find(':');
    if (due_punti == nome.size() && ::strncasecmp(riga.c_str(), nome.c_str(), nome.size()) == 0) {
      const auto valore = riga.find_first_not_of(' ', due_punti + 1);
      return valore == std::string::npos ? "" : riga.substr(valore);
    }
    i = fine;
  }
  return "";
}

RispostaGrezza invia_grezza(int porta, const std::string& richiesta, double secondi) {
  RispostaGrezza r;
  const auto fine = Orologio::now() + std::chrono::duration_cast<Orologio::duration>(
                                          std::chrono::duration<double>(secondi));
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return r;
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_port = htons(static_cast<std::uint16_t>(porta));
  ind.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)) != 0 && errno != EINPROGRESS) {
    ::close(fd);
    return r;
  }
  // The server may answer (and close) before it read everything, e.g. a 400 for a request line
  // it refused: a failed write is not the end, the answer may be waiting.
  std::size_t scritti = 0;
  while (scritti < richiesta.size()) {
    if (!pronto(fd, POLLOUT, fine)) break;
    const ssize_t n =
        ::send(fd, richiesta.data() + scritti, richiesta.size() - scritti, MSG_NOSIGNAL);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) break;
    scritti += static_cast<std::size_t>(n);
  }
  std::string dati;
  std::size_t fine_testata = std::string::npos;
  long long lunghezza = -1;
  bool chiuso = false;
  char blocco[64 * 1024];
  for (;;) {
    if (fine_testata != std::string::npos && lunghezza >= 0 &&
        dati.size() >= fine_testata + 4 + static_cast<std::size_t>(lunghezza))
      break;
    if (!pronto(fd, POLLIN, fine)) break;
    const ssize_t n = ::recv(fd, blocco, sizeof(blocco), 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) {
      chiuso = true;
      break;
    }
    dati.append(blocco, static_cast<std::size_t>(n));
    if (fine_testata == std::string::npos) {
      fine_testata = dati.find("\r\n\r\n");
      if (fine_testata != std::string::npos) {
        leggi_testata(r, dati, fine_testata);
        const std::string cl = r.intestazione("Content-Length");
        if (!cl.empty()) lunghezza = std::atoll(cl.c_str());
        if (richiesta.rfind("HEAD ", 0) == 0) lunghezza = 0;
      }
    }
  }
  ::close(fd);
  if (fine_testata == std::string::npos) {
    r.status = 0;
    r.scaduta = !chiuso;
    return r;
  }
  r.corpo = dati.substr(fine_testata + 4);
  if (lunghezza >= 0) {
    r.scaduta = r.corpo.size() < static_cast<std::size_t>(lunghezza) && !chiuso;
    if (r.corpo.size() > static_cast<std::size_t>(lunghezza))
      r.corpo.resize(static_cast<std::size_t>(lunghezza));
  } else {
    r.scaduta = !chiuso;
  }
  return r;
}

std::string testo_richiesta(const std::string& metodo, const std::string& bersaglio,
                            const std::string& altre, const std::string& corpo) {
  std::string t =
      metodo + " " + bersaglio + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
  t += altre;
  // The server refuses a request with a body method and no length, as a browser never sends.
  if (!corpo.empty() || (metodo != "GET" && metodo != "HEAD"))
    t += "Content-Length: " + std::to_string(corpo.size()) + "\r\n";
  t += "\r\n";
  t += corpo;
  return t;
}

std::string accedi_grezzo(int porta, const std::string& password) {
  auto r =
      invia_grezza(porta,
                   testo_richiesta("POST", "/api/accesso", "Content-Type: application/json\r\n",
                                   Json{{"password", password}}.dump()),
                   60);
  const std::string c = r.intestazione("Set-Cookie");
  return r.status == 200 ? c.substr(0, c.find(';')) : "";
}

std::string codifica_url(const std::string& s) {
  static const char* cifre = "0123456789ABCDEF";
  std::string t;
  for (unsigned char c : s) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      t += static_cast<char>(c);
    } else {
      t += '%';
      t += cifre[c >> 4];
      t += cifre[c & 15];
    }
  }
  return t;
}

}  // namespace nvr::affidabilita
