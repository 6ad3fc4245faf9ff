// An in-process web host for tests: a router with Flask-like matching, guards that can refuse,
// and the answers as a client would see them (file answers planned with byte ranges and read).
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/host.h"
#include "testing/ambiente.h"

namespace nvr::testing {

struct RispostaHttp {
  int status = 0;
  std::map<std::string, std::string> intestazioni;
  std::string corpo;
  Json json;  // the body read as JSON (null when it is not)
};

class AppDiProva : public AppWeb {
 public:
  struct Registrata {
    std::string percorso, endpoint;
    Vista vista;
    std::vector<std::string> metodi;
  };
  void add_url_rule(const std::string& percorso, const std::string& endpoint, Vista vista,
                    const std::vector<std::string>& metodi) override;
  std::vector<Registrata> rotte() const;

  // Dispatches like the host's router: 404 for an unknown path, 405 for a known path without
  // that method; "<int:rid>" takes a non-negative integer only. `indirizzo` may carry a query
  // string (percent-decoded). `corpo` is the raw body (read leniently). An exception escaping
  // the view becomes a 500 JSON error, as a host's generic error page would.
  RispostaHttp chiama(const std::string& metodo, const std::string& indirizzo,
                      const std::string& corpo = "",
                      std::map<std::string, std::string> intestazioni = {}) const;

 private:
  mutable std::mutex m_;
  std::vector<Registrata> rotte_;
};

// A host with an app, guards and exit/SIGTERM hooks, not yet attached: tests call collega().
class HostWeb : public HostDiProva {
 public:
  HostWeb();
  std::shared_ptr<AppDiProva> app;
  bool loggato = true;  // the login guard lets the request through
  bool admin = true;    // the administrator guard lets it through
  std::vector<std::string> guardie;  // which guard ran, in order ("login", "admin")
  std::vector<std::function<void()>> uscite;  // what collega asked to run at exit
  std::function<void()> sigterm;               // what collega asked to run at SIGTERM

  RispostaHttp get(const std::string& indirizzo, std::map<std::string, std::string> h = {}) {
    return app->chiama("GET", indirizzo, "", std::move(h));
  }
  RispostaHttp post(const std::string& indirizzo, const Json& corpo) {
    return app->chiama("POST", indirizzo, corpo.dump());
  }
  RispostaHttp elimina(const std::string& indirizzo, const Json& corpo = Json::object()) {
    return app->chiama("DELETE", indirizzo, corpo.dump());
  }
};

}  // namespace nvr::testing
