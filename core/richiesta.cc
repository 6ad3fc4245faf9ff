#include "core/richiesta.h"

namespace nvr {

std::string Richiesta::parametro(const std::string& nome) const {
  auto it = query.find(nome);
  return it == query.end() ? std::string() : it->second;
}

Risposta _json(Json corpo, int status) {
  Risposta r;
  r.status = status;
  r.corpo = std::move(corpo);
  return r;
}

Risposta errore_json(const std::string& messaggio, int status) {
  return _json(Json{{"status", "error"}, {"message", messaggio}}, status);
}

}  // namespace nvr
