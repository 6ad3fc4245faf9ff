// The program's HTTP server: turns each request into a Richiesta for the router or into an
// embedded page, and sends the Risposta back, file answers streamed from disk.
#pragma once

#include <memory>
#include <string>

#include "autonomo/instradamento.h"
#include "core/esito.h"

namespace nvr::autonomo {

class ServerHttp {
 public:
  explicit ServerHttp(std::shared_ptr<const Instradatore> rotte);
  ~ServerHttp();
  ServerHttp(const ServerHttp&) = delete;
  ServerHttp& operator=(const ServerHttp&) = delete;

  // Binds `indirizzo`:`porta` (nothing is served yet). On failure the message is the line for
  // the user: "Porta N gia' in uso: scegli un'altra porta con --porta" when the port is taken,
  // "Indirizzo A:N non utilizzabile: <reason>" otherwise. Does not block.
  Esito<int> apri(const std::string& indirizzo, int porta);

  // Serves on the bound port until ferma(); blocks. Answers false when the server stopped on
  // an error rather than on ferma().
  bool servi();

  // Makes servi() return; open connections are closed. Safe from any thread, idempotent.
  void ferma();

 private:
  struct Dentro;
  std::unique_ptr<Dentro> d_;
};

}  // namespace nvr::autonomo
