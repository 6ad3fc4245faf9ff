#include "tests/reliability/richiesta_grezza.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/json.h"

namespace nvr::affidabilita {

std::string RispostaGrezza::intestazione(const std::string& nome) const {
  for (std::size_t i = testata.find("\r\n"); i != std::string::npos;) {
    const std::size_t fine = testata.find("\r\n", i + 2);
    const std::string riga = testata.substr(i + 2, fine == std::string::npos ? fine : fine - i - 2);
    if (riga.find(':') == nome.size() &&
        ::strncasecmp(riga.c_str(), nome.c_str(), nome.size()) == 0)
      return riga.substr(std::min(riga.size(), riga.find_first_not_of(' ', nome.size() + 1)));
    i = fine;
  }
  return "";
}

RispostaGrezza invia_grezza(int porta, const std::string& richiesta, double secondi) {
  RispostaGrezza r;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const timeval attesa{static_cast<time_t>(secondi), 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &attesa, sizeof(attesa));
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &attesa, sizeof(attesa));
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_port = htons(static_cast<std::uint16_t>(porta));
  ind.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)) != 0) {
    ::close(fd);
    return r;
  }
  // The server may answer (and close) before it read everything, e.g. a 400 for a request line
  // it refused: a failed write is not the end, the answer may be waiting.
  for (std::size_t scritti = 0; scritti < richiesta.size();) {
    const ssize_t n =
        ::send(fd, richiesta.data() + scritti, richiesta.size() - scritti, MSG_NOSIGNAL);
    if (n <= 0) break;
    scritti += static_cast<std::size_t>(n);
  }
  std::string dati;
  std::size_t testa = std::string::npos, attesi = std::string::npos;
  char blocco[64 * 1024];
  while (testa == std::string::npos || attesi == std::string::npos ||
         dati.size() < testa + 4 + attesi) {
    const ssize_t n = ::recv(fd, blocco, sizeof(blocco), 0);
    if (n < 0 && errno == EINTR) continue;
    r.scaduta = n < 0;  // time-out: SO_RCVTIMEO
    if (n <= 0) break;
    dati.append(blocco, static_cast<std::size_t>(n));
    if (testa == std::string::npos && (testa = dati.find("\r\n\r\n")) != std::string::npos) {
      r.testata = dati.substr(0, testa);
      if (r.testata.starts_with("HTTP/")) r.status = std::atoi(r.testata.c_str() + 9);
      const std::string cl = r.intestazione("Content-Length");
      if (!cl.empty()) attesi = std::strtoull(cl.c_str(), nullptr, 10);
      if (richiesta.starts_with("HEAD ")) attesi = 0;
    }
  }
  ::close(fd);
  if (testa == std::string::npos) {
    r.status = 0;
    return r;
  }
  r.corpo = dati.substr(testa + 4, attesi);
  return r;
}

std::string testo_richiesta(const std::string& metodo, const std::string& bersaglio,
                            const std::string& altre, const std::string& corpo) {
  std::string t =
      metodo + " " + bersaglio + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
  t += altre;
  // The server refuses a body method without a length, as no browser sends it.
  if (!corpo.empty() || (metodo != "GET" && metodo != "HEAD"))
    t += "Content-Length: " + std::to_string(corpo.size()) + "\r\n";
  return t + "\r\n" + corpo;
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
  std::string t;
  for (unsigned char c : s) {
    char esc[4];
    std::snprintf(esc, sizeof(esc), "%%%02X", c);
    t += std::isalnum(c) || (c != 0 && std::strchr("-._~", c)) ? std::string(1, c) : esc;
  }
  return t;
}

}  // namespace nvr::affidabilita
