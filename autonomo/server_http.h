// The program's HTTP server: turns each request into a Richiesta for the router or into an
// embedded page, and sends the Risposta back: JSON, a file from disk, or a stream.
//
// One network thread serves every connection without blocking, so slow or idle clients cost a
// descriptor and a little memory, not a thread; the handlers run on a small set of worker
// threads while their connection waits, so one slow handler holds up only its own client.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "autonomo/instradamento.h"
#include "core/esito.h"

namespace nvr::autonomo {

struct StatoServer;  // the server's inside, in server_http.cc

// Limits against slow or abusive clients. A connection past its time is closed.
struct LimitiServer {
  unsigned connessioni_per_indirizzo = 128;  // more are refused at once
  double secondi_intestazioni = 10;     // from the connection, or from the previous answer's end
  double secondi_corpo = 30;            // from the end of the headers
  std::size_t massimo_corpo = 4 << 20;  // beyond: 413 "Richiesta troppo grande"
};

class ServerHttp {
 public:
  explicit ServerHttp(std::shared_ptr<const Instradatore> rotte, LimitiServer limiti = {});
  // Stops serving. If a handler is still running after ferma()'s grace time, what it needs is
  // left allocated for the rest of the process instead of being freed under it.
  ~ServerHttp();
  ServerHttp(const ServerHttp&) = delete;
  ServerHttp& operator=(const ServerHttp&) = delete;

  // Binds and listens on `indirizzo`:`porta`; connections wait in the queue until servi().
  // On failure the message is the line for the user: "Porta N gia' in uso: scegli un'altra porta
  // con --porta" when the port is taken, "Indirizzo A:N non utilizzabile: ..." otherwise.
  // Does not block.
  Esito<int> apri(const std::string& indirizzo, int porta);

  // Speaks HTTPS instead of HTTP with this certificate (chain) and unencrypted private key,
  // both PEM text (tls.h checks them). Call before servi(). Does not block.
  void usa_tls(std::string certificato_pem, std::string chiave_pem);

  // Serves on the bound port until ferma(); blocks. Answers false when the server could not
  // start serving rather than stopping on ferma() (with TLS: also when the library refuses the
  // certificate or key, or was built without TLS).
  bool servi();

  // Makes servi() return: open streams end, running handlers get a few seconds to finish, open
  // connections are closed. Safe from any thread (not from a signal handler), idempotent.
  void ferma();

 private:
  std::unique_ptr<StatoServer> d_;
};

}  // namespace nvr::autonomo
