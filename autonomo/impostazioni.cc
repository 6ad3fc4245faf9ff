#include "autonomo/impostazioni.h"

#include "autonomo/instradamento.h"
#include "core/db.h"
#include "engine/mqtt.h"

namespace nvr::autonomo {

namespace {

constexpr const char* kTabella =
    "CREATE TABLE IF NOT EXISTS nvr_autonomo_impostazioni (chiave TEXT PRIMARY KEY, valore TEXT)";

bool token_valido(const std::string& t) {
  if (t.size() > 256) return false;
  for (unsigned char c : t)
    if (c <= 0x20 || c >= 0x7f) return false;  // it travels in an HTTP header
  return true;
}

Json successo(Json altro) {
  Json corpo = {{"status", "success"}};
  for (auto& [k, v] : altro.items()) corpo[k] = v;
  return corpo;
}

// Where the MQTT link stands right now: what the page shows under the broker's fields.
Json stato_collegamento() {
  const StatoMqtt s = stato_mqtt();
  return {{"fase", nome_fase(s.fase)}, {"messaggio", s.messaggio}};
}

}  // namespace

Impostazioni leggi_impostazioni(const std::string& db_file) {
  Connessione c(db_file);
  c.esegui(kTabella);
  c.commit();
  Impostazioni imp;
  for (const auto& riga :
       c.righe("SELECT chiave, valore FROM nvr_autonomo_impostazioni WHERE chiave IN "
               "('mqtt', 'token_metriche')")) {
    const std::string chiave = come_testo(riga[0]);
    const std::string valore = come_testo(riga[1]);
    if (chiave == "mqtt")
      imp.mqtt = mqtt_salvate(leggi_json(valore).value_or(Json::object()));
    else
      imp.token_metriche = valore;
  }
  return imp;
}

void salva_impostazioni(const std::string& db_file, const Impostazioni& imp) {
  Connessione c(db_file);
  c.esegui(kTabella);
  const char* sql =
      "INSERT OR REPLACE INTO nvr_autonomo_impostazioni (chiave, valore) VALUES (?, ?)";
  c.esegui(sql, {std::string("mqtt"), mqtt_da_salvare(imp.mqtt).dump()});
  c.esegui(sql, {std::string("token_metriche"), imp.token_metriche});
  c.commit();
}

Esito<Impostazioni> unisci_impostazioni(const Impostazioni& attuali, const Json& corpo) {
  if (!corpo.is_object()) return Errore{400, "Impostazioni non valide: atteso un oggetto"};
  Impostazioni imp = attuali;
  if (corpo.contains("mqtt")) {
    auto mqtt = unisci_impostazioni_mqtt(attuali.mqtt, corpo["mqtt"]);
    if (!mqtt) return mqtt.errore();
    imp.mqtt = std::move(mqtt).valore();
  }
  if (corpo.contains("metriche")) {
    const Json& m = corpo["metriche"];
    if (!m.is_object()) return Errore{400, "metriche: atteso un oggetto"};
    if (m.contains("token")) {
      const Json& t = m["token"];
      if (t.is_null()) {
        imp.token_metriche.clear();
      } else if (!t.is_string() || !token_valido(t.get<std::string>())) {
        return Errore{400,
                      "metriche.token: il token deve essere un testo senza spazi, al massimo "
                      "256 caratteri"};
      } else if (!t.get<std::string>().empty()) {
        imp.token_metriche = t.get<std::string>();
      }
    }
  }
  return imp;
}

Json impostazioni_da_mostrare(const Impostazioni& imp) {
  return {{"mqtt", mqtt_da_mostrare(imp.mqtt)},
          {"metriche", {{"token_impostato", !imp.token_metriche.empty()}}}};
}

void registra_rotte_impostazioni(AppWeb& app, const Guardia& login, const Guardia& admin,
                                 const std::string& db_file,
                                 std::function<void(const Impostazioni&)> applica) {
  auto scrittura = std::make_shared<std::mutex>();  // one read-modify-write at a time
  Vista vista = [db_file, applica, scrittura](const Richiesta& r) -> Risposta {
    if (r.metodo == "GET") {
      Json corpo = successo(impostazioni_da_mostrare(leggi_impostazioni(db_file)));
      corpo["mqtt_stato"] = stato_collegamento();
      return _json(corpo);
    }
    auto grezzo = r.intestazioni.find(kCorpoGrezzo);
    std::optional<Json> corpo =
        grezzo == r.intestazioni.end() ? std::optional<Json>(r.corpo) : leggi_json(grezzo->second);
    Impostazioni nuove;
    {
      std::lock_guard l(*scrittura);
      auto esito = unisci_impostazioni(leggi_impostazioni(db_file), corpo.value_or(Json()));
      if (!esito) return errore_json(esito.errore().messaggio, esito.errore().codice);
      nuove = std::move(esito).valore();
      salva_impostazioni(db_file, nuove);
    }
    if (applica) applica(nuove);
    return _json(successo(impostazioni_da_mostrare(nuove)));
  };
  app.add_url_rule("/api/impostazioni", "impostazioni", login(admin(vista)), {"GET", "POST"});
}

}  // namespace nvr::autonomo
