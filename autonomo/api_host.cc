#include "autonomo/api_host.h"

#include "autonomo/instradamento.h"
#include "autonomo/telecamere_host.h"
#include "autonomo/token_metriche.h"
#include "core/testi.h"
#include "web/api_anteprima.h"
#include "web/api_registrazioni.h"
#include "web/api_riproduzione.h"
#include "web/api_salute.h"
#include "web/api_vivo.h"
#include "web/metriche.h"

namespace nvr::autonomo {

namespace {

std::string token_di(const Richiesta& r) {
  auto it = r.intestazioni.find("cookie");
  return it == r.intestazioni.end() ? "" : valore_cookie(it->second, kCookieSessione);
}

Risposta successo(Json altro = Json::object()) {
  Json corpo = {{"status", "success"}};
  for (auto& [k, v] : altro.items()) corpo[k] = v;
  return _json(std::move(corpo));
}

template <class T>
Risposta errore_da(const Esito<T>& e) {
  return errore_json(e.errore().messaggio, e.errore().codice);
}

// A text field of the body when it is there: texts as they are, other values as their text.
std::optional<std::string> testo_campo(const Json& corpo, const char* chiave) {
  const Json& v = campo(corpo, chiave);
  if (v.is_null()) return std::nullopt;
  return testo_di(v);
}

// The session cookie's attributes; under HTTPS the browser must never send it in clear.
std::string attributi_cookie(const ContestoHost& c) {
  return std::string("; HttpOnly; SameSite=Strict; Path=/") + (c.https ? "; Secure" : "");
}

Risposta api_accesso(const ContestoHost& c, const Richiesta& r) {
  auto indirizzo = r.intestazioni.find(kIndirizzoCliente);
  auto esito = c.accesso->accedi(testo_campo(r.corpo, "password").value_or(""),
                                 indirizzo == r.intestazioni.end() ? "" : indirizzo->second);
  if (esito.riprova_fra > 0) {
    const int minuti = (esito.riprova_fra + 59) / 60;
    Risposta risposta =
        errore_json("Troppe password errate da questo indirizzo: riprova fra " +
                        std::to_string(minuti) + (minuti == 1 ? " minuto" : " minuti"),
                    429);
    risposta.intestazioni.emplace_back("Retry-After", std::to_string(esito.riprova_fra));
    return risposta;
  }
  if (!esito.token) return errore_json("Password errata", 401);
  Risposta risposta = successo();
  risposta.intestazioni.emplace_back(
      "Set-Cookie", std::string(kCookieSessione) + "=" + *esito.token + attributi_cookie(c));
  return risposta;
}

Risposta api_uscita(const ContestoHost& c, const Richiesta& r) {
  c.accesso->esci(token_di(r));
  Risposta risposta = successo();
  risposta.intestazioni.emplace_back(
      "Set-Cookie", std::string(kCookieSessione) + "=; Max-Age=0" + attributi_cookie(c));
  return risposta;
}

Risposta api_telecamere(const ContestoHost& c, const Richiesta& r) {
  if (r.metodo == "POST") {
    auto id = aggiungi_telecamera(c.db_file, testo_campo(r.corpo, "nome").value_or(""),
                                  testo_campo(r.corpo, "url").value_or(""));
    if (!id) return errore_da(id);
    if (auto vivo = testo_campo(r.corpo, "url_vivo")) {
      auto esito = imposta_url_vivo(c.db_file, id.valore(), *vivo);
      if (!esito) {
        (void)elimina_telecamera(c.db_file, id.valore());  // nothing half-saved
        return errore_da(esito);
      }
    }
    return successo({{"id", id.valore()}});
  }
  Json elenco = Json::array();
  for (const auto& t : elenco_telecamere(c.db_file))
    elenco.push_back({{"id", t.id}, {"nome", t.nome}, {"url", t.url}, {"url_vivo", t.url_vivo}});
  return successo({{"telecamere", elenco}});
}

Risposta api_telecamera(const ContestoHost& c, const Richiesta& r) {
  const std::int64_t id = r.rid.value_or(-1);
  auto vivo = testo_campo(r.corpo, "url_vivo");
  if (r.metodo == "POST" && vivo && !spoglia_spazi_e_righe(*vivo).empty() &&
      !schema_flusso_valido(spoglia_spazi_e_righe(*vivo)))
    return errore_json("Indirizzo del flusso non valido", 400);  // before anything is saved
  auto esito = r.metodo == "DELETE"
                   ? elimina_telecamera(c.db_file, id)
                   : modifica_telecamera(c.db_file, id, testo_campo(r.corpo, "nome"),
                                         testo_campo(r.corpo, "url"));
  if (esito && r.metodo == "POST" && vivo) esito = imposta_url_vivo(c.db_file, id, *vivo);
  if (!esito) return errore_da(esito);
  return successo();
}

Risposta api_stati(const ContestoHost& c, const Richiesta& r) {
  if (r.metodo == "GET") return successo({{"stati", c.stati->tutti()}});
  auto grezzo = r.intestazioni.find(kCorpoGrezzo);
  std::optional<Json> corpo =
      grezzo == r.intestazioni.end() ? std::optional<Json>(r.corpo) : leggi_json(grezzo->second);
  auto esito = c.stati->unisci(corpo ? *corpo : Json());
  if (!esito) return errore_da(esito);
  return successo({{"stati", esito.valore()}});
}

}  // namespace

Guardia guardia_login(std::shared_ptr<Accesso> accesso) {
  return [accesso](Vista v) -> Vista {
    return [accesso, v](const Richiesta& r) {
      if (!accesso->valida(token_di(r))) return errore_json("Accesso richiesto", 401);
      return v(r);
    };
  };
}

Guardia guardia_admin(std::shared_ptr<Accesso> accesso) {
  return [accesso](Vista v) -> Vista {
    return [accesso, v](const Richiesta& r) {
      if (!accesso->valida(token_di(r))) return errore_json("Permesso negato", 403);
      return v(r);
    };
  };
}

void registra_rotte_host(AppWeb& app, std::shared_ptr<const ContestoHost> c) {
  auto login = guardia_login(c->accesso);
  auto admin = guardia_admin(c->accesso);
  auto protetta = [&](auto f) -> Vista {
    return login(admin([c, f](const Richiesta& r) { return f(*c, r); }));
  };
  auto libera = [&](auto f) -> Vista { return [c, f](const Richiesta& r) { return f(*c, r); }; };

  app.add_url_rule("/api/sessione", "sessione",
                   libera([](const ContestoHost& c, const Richiesta& r) {
                     return successo({{"loggato", c.accesso->valida(token_di(r))}});
                   }),
                   {"GET"});
  app.add_url_rule("/api/accesso", "accesso", libera(api_accesso), {"POST"});
  app.add_url_rule("/api/uscita", "uscita", libera(api_uscita), {"POST"});
  app.add_url_rule("/api/info", "info", protetta([](const ContestoHost& c, const Richiesta&) {
                     return successo({{"fuso", c.fuso}, {"versione", c.versione}});
                   }),
                   {"GET"});
  app.add_url_rule("/api/telecamere", "telecamere", protetta(api_telecamere), {"GET", "POST"});
  app.add_url_rule("/api/telecamere/<int:rid>", "telecamera", protetta(api_telecamera),
                   {"POST", "DELETE"});
  app.add_url_rule("/api/stati", "stati", protetta(api_stati), {"GET", "POST"});
  // Live view watches the lighter stream when the owner gave one.
  registra_rotte_vivo(app, login, admin, [db = c->db_file](CamId id) {
    std::optional<Camera> cam = telecamera_registrata(id);
    if (cam)
      for (const auto& t : elenco_telecamere(db))
        if (t.id == id && !t.url_vivo.empty()) cam->url = t.url_vivo;
    return cam;
  });
  registra_rotte_riproduzione(app, login, admin);
  registra_rotte_anteprima(app, login, admin);
  registra_rotte_salute(app, login, admin);
  // A Prometheus server has no session: a bearer token set in the settings opens /metrics too.
  registra_rotte_metriche(app, login, [db = c->db_file] { return token_metriche(db); });
}

void aggiungi_scorciatoie(Instradatore& rotte, std::shared_ptr<const ContestoHost> c) {
  auto login = guardia_login(c->accesso);
  auto admin = guardia_admin(c->accesso);
  rotte.aggiungi_scorciatoia("nvr_video", [login, admin](const Richiesta& r) {
    // The guards wrap a view: the shortcut runs inside one, and a guard that refuses answers.
    std::optional<Risposta> subito;
    bool passata = false;
    const Vista protetta = login(admin([&](const Richiesta& x) {
      passata = true;
      subito = api_video_subito(x);
      return Risposta{};
    }));
    Risposta rifiuto = protetta(r);
    return passata ? subito : std::optional<Risposta>(std::move(rifiuto));
  });
}

}  // namespace nvr::autonomo
