// A minimal HTTP/1.1 client for the benchmarks, the same for every server they compare: a fresh
// loopback connection per request, headers read up to the blank line, then the body (by
// Content-Length, or chunked for a stream) into a reused buffer.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench/misure.h"

namespace nvr::bench {

// One answer as the client saw it.
struct Ricevuta {
  int status = 0;
  std::string intestazioni;
  std::string corpo;        // kept only when asked
  std::size_t byte = 0;     // of the body
  double primo_byte_s = 0;  // request sent -> first byte of the answer
  double secondi = 0;       // request sent -> last byte of the body
};

// A connected socket to 127.0.0.1:`porta` with the request sent; -1 on failure.
inline int invia_richiesta(int porta, const std::string& percorso, const std::string& altre) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(porta));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    ::close(fd);
    return -1;
  }
  int si = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &si, sizeof si);
  const std::string richiesta =
      "GET " + percorso + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + altre + "Connection: close\r\n\r\n";
  if (::send(fd, richiesta.data(), richiesta.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(richiesta.size())) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// The value of header `nome` (lower case) in `intestazioni`, "" when absent.
inline std::string intestazione(const std::string& intestazioni, const std::string& nome) {
  for (std::size_t p = 0; p < intestazioni.size();) {
    std::size_t e = intestazioni.find("\r\n", p);
    if (e == std::string::npos) e = intestazioni.size();
    std::string riga = intestazioni.substr(p, e - p);
    const std::size_t due = riga.find(':');
    std::string chiave = riga.substr(0, due);
    for (char& c : chiave) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (due != std::string::npos && chiave == nome) {
      std::size_t v = due + 1;
      while (v < riga.size() && riga[v] == ' ') ++v;
      return riga.substr(v);
    }
    p = e + 2;
  }
  return "";
}

// Reads the status line and headers from `fd`; the body bytes that came with them are left in
// `resto`. False when the connection ended first.
inline bool leggi_testa(int fd, Ricevuta& r, std::string& resto,
                        std::chrono::steady_clock::time_point t0) {
  char buf[65536];
  std::string testa;
  std::size_t fine = std::string::npos;
  while (fine == std::string::npos) {
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    if (testa.empty()) r.primo_byte_s = secondi_da(t0);
    testa.append(buf, static_cast<std::size_t>(n));
    fine = testa.find("\r\n\r\n");
  }
  r.intestazioni = testa.substr(0, fine);
  r.status = std::atoi(r.intestazioni.c_str() + r.intestazioni.find(' ') + 1);
  resto = testa.substr(fine + 4);
  return true;
}

// A request with a Content-Length answer, read whole.
inline Ricevuta chiedi(int porta, const std::string& percorso, const std::string& altre,
                       bool tieni_corpo) {
  Ricevuta r;
  auto t0 = std::chrono::steady_clock::now();
  const int fd = invia_richiesta(porta, percorso, altre);
  if (fd < 0) return r;
  std::string gia;
  if (!leggi_testa(fd, r, gia, t0)) {
    ::close(fd);
    return r;
  }
  const std::string l = intestazione(r.intestazioni, "content-length");
  const std::size_t lunghezza = l.empty() ? 0 : std::stoull(l);
  r.byte = gia.size();
  if (tieni_corpo) r.corpo = gia;
  static thread_local std::vector<char> buf(1 << 20);
  while (r.byte < lunghezza) {
    ssize_t n = ::recv(fd, buf.data(), std::min(buf.size(), lunghezza - r.byte), 0);
    if (n <= 0) break;
    r.byte += static_cast<std::size_t>(n);
    if (tieni_corpo) r.corpo.append(buf.data(), static_cast<std::size_t>(n));
  }
  r.secondi = secondi_da(t0);
  ::close(fd);
  return r;
}

// How long a fragmented MP4 stream took to deliver its initialisation and its first whole
// fragment (moof and its mdat), and the size of that fragment's mdat.
struct PrimoFrammento {
  int status = 0;
  double secondi = 0;
  std::size_t byte = 0;
};

// Requests a chunked fragmented MP4 stream and hangs up once its first fragment is whole.
inline PrimoFrammento primo_frammento(int porta, const std::string& percorso,
                                      const std::string& altre) {
  PrimoFrammento f;
  Ricevuta r;
  auto t0 = std::chrono::steady_clock::now();
  const int fd = invia_richiesta(porta, percorso, altre);
  if (fd < 0) return f;
  std::string grezzo;  // chunked transfer coding, not yet decoded
  if (!leggi_testa(fd, r, grezzo, t0)) {
    ::close(fd);
    return f;
  }
  f.status = r.status;
  std::string corpo;
  char buf[65536];
  for (;;) {
    // Decode whole chunks.
    for (;;) {
      const std::size_t eol = grezzo.find("\r\n");
      if (eol == std::string::npos) break;
      const std::size_t n = std::stoull(grezzo.substr(0, eol), nullptr, 16);
      if (grezzo.size() < eol + 2 + n + 2) break;
      corpo.append(grezzo, eol + 2, n);
      grezzo.erase(0, eol + 2 + n + 2);
    }
    // Walk the top-level boxes: done at the end of the first mdat after a moof.
    bool moof = false;
    for (std::size_t p = 0; p + 8 <= corpo.size();) {
      const auto* b = reinterpret_cast<const unsigned char*>(corpo.data() + p);
      const std::size_t dim = (std::size_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8) | b[3];
      if (dim < 8 || p + dim > corpo.size()) break;
      if (std::memcmp(b + 4, "moof", 4) == 0) moof = true;
      if (moof && std::memcmp(b + 4, "mdat", 4) == 0) {
        f.secondi = secondi_da(t0);
        f.byte = dim;
        ::close(fd);
        return f;
      }
      p += dim;
    }
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) break;
    grezzo.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return f;
}

}  // namespace nvr::bench
