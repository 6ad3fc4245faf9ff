// HTTP at the byte level over loopback, for the tests that send what no well-behaved client
// sends (broken request lines, raw invalid UTF-8, bodies that lie about their length) and must
// tell a server that answers badly from one that does not answer at all.
#pragma once

#include <string>

namespace nvr::affidabilita {

struct RispostaGrezza {
  int status = 0;        // 0: no status line came back (refused, closed, or time-out)
  bool scaduta = false;  // the answer was not complete within the time limit
  std::string testata;   // the status line and the headers, as sent
  std::string corpo;     // the body (up to Content-Length when the server sent one)
  std::string intestazione(const std::string& nome) const;  // case-insensitive, "" when absent
};

// Sends `richiesta` as given to 127.0.0.1:`porta` and reads until the server closes or the body
// is complete. Each read waits up to `secondi`; never throws.
RispostaGrezza invia_grezza(int porta, const std::string& richiesta, double secondi);

// The request line, Host, Connection: close, `altre` header lines (each ending in "\r\n"),
// Content-Length unless a GET or HEAD has no body, and the body.
std::string testo_richiesta(const std::string& metodo, const std::string& bersaglio,
                            const std::string& altre = "", const std::string& corpo = "");

// Logs in with `password`: the cookie pair to send back ("nvr_sessione=..."), "" when refused.
std::string accedi_grezzo(int porta, const std::string& password);

// `s` with every byte outside [A-Za-z0-9-._~] written as %XX.
std::string codifica_url(const std::string& s);

}  // namespace nvr::affidabilita
