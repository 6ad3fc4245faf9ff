// The program's router: Flask-like rules on paths and methods, and the request as the
// recorder's handlers see it. Knows nothing of the HTTP library.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/host.h"

namespace nvr::autonomo {

// An answer given at once from memory, or absent for "ask the rule's view". It runs on the
// server's network thread: it must never block (no disk, no database, only short locks) nor throw.
using VistaSubito = std::function<std::optional<Risposta>(const Richiesta&)>;

// Where the server leaves the request's raw body among the headers, for the handlers that must
// tell a missing or non-object body from an empty object. No HTTP header name can contain ':'.
inline constexpr const char* kCorpoGrezzo = ":corpo";
// Where it leaves the client's address ("192.0.2.7", "2001:db8::1"), likewise.
inline constexpr const char* kIndirizzoCliente = ":indirizzo";

class Instradatore : public AppWeb {
 public:
  // Adds a rule. `percorso` may hold one "<int:rid>" segment. Throws std::runtime_error
  // when `endpoint` is already registered (a route registered twice is a wiring fault).
  void add_url_rule(const std::string& percorso, const std::string& endpoint, Vista vista,
                    const std::vector<std::string>& metodi) override;

  // Answers request `r` for URL path `percorso` (no query string; r.metodo "HEAD" is served as
  // "GET"): 404 {"status":"error","message":"Risorsa non trovata"} for an unknown path, 405
  // "Metodo non permesso" for a known path without that method. An exception escaping the view
  // becomes 500 "Errore interno del server: ..." and one log line; never throws. Takes the rule
  // table's mutex only to copy the matching rule.
  Risposta instrada(const std::string& percorso, Richiesta r) const;

  // Gives rule `endpoint` a shortcut, tried before instrada() for the same paths and methods
  // (see VistaSubito). Throws std::runtime_error when no rule has that endpoint.
  void aggiungi_scorciatoia(const std::string& endpoint, VistaSubito vista);

  // What the shortcut of the rule matching `percorso` and r.metodo answers; absent when that
  // rule has none or it answered nothing. Never blocks beyond the rule table's mutex.
  std::optional<Risposta> instrada_subito(const std::string& percorso, Richiesta r) const;

 private:
  struct Regola {
    std::string percorso, endpoint;
    Vista vista;
    std::vector<std::string> metodi;
    VistaSubito subito;
  };
  mutable std::mutex m_;  // guards regole_
  std::vector<Regola> regole_;
};

// The value of cookie `nome` in a Cookie header ("a=1; b=2"), "" when absent.
std::string valore_cookie(const std::string& intestazione, const std::string& nome);

}  // namespace nvr::autonomo
