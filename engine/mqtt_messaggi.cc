#include "engine/mqtt_messaggi.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <set>

namespace nvr {

namespace {

bool utf8_senza_controlli(std::string_view s) {
  for (std::size_t i = 0; i < s.size();) {
    const auto c = static_cast<unsigned char>(s[i]);
    int seguito = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
    if (seguito < 0 || (c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f) return false;
    if (i + seguito >= s.size()) return false;  // a sequence cut short
    for (int k = 1; k <= seguito; ++k)
      if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2) return false;
    i += seguito + 1;
  }
  return true;
}

std::string spoglia(std::string_view s) {
  const auto a = s.find_first_not_of(" \t\r\n");
  if (a == std::string_view::npos) return "";
  return std::string(s.substr(a, s.find_last_not_of(" \t\r\n") - a + 1));
}

// The node id in discovery topics and unique ids: the prefix with anything but [A-Za-z0-9_-]
// turned into '_' (a prefix "casa/nvr" gives "casa_nvr").
std::string nodo_di(const std::string& prefisso) {
  std::string n = prefisso;
  for (char& c : n)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') c = '_';
  return n;
}

std::string con_decimali(double v, int decimali) {
  char b[64];
  std::snprintf(b, sizeof b, "%.*f", decimali, v);
  return b;
}

std::string iso_utc(double epoch) {
  const std::time_t t = static_cast<std::time_t>(std::floor(epoch));
  std::tm tm{};
  ::gmtime_r(&t, &tm);
  char b[40];
  std::strftime(b, sizeof b, "%Y-%m-%dT%H:%M:%S+00:00", &tm);
  return b;
}

Json dispositivo_registratore(const std::string& nodo) {
  return {{"identifiers", {nodo}},
          {"name", "NVR"},
          {"manufacturer", "nvr"},
          {"model", "Videoregistratore"}};
}

MessaggioMqtt configurazione(const std::string& componente, const std::string& nodo,
                             const std::string& oggetto, Json corpo) {
  return {
      std::string(kPrefissoScoperta) + "/" + componente + "/" + nodo + "/" + oggetto + "/config",
      corpo.dump(), true};
}

}  // namespace

bool host_valido(std::string_view h) {
  if (h.empty() || h.size() > 253) return false;
  std::string s(h);
  in6_addr a6{};
  if (s.find(':') != std::string::npos) return ::inet_pton(AF_INET6, s.c_str(), &a6) == 1;
  std::size_t lunghezza = 0;
  char precedente = '.';
  for (char c : s) {
    if (c == '.') {
      if (precedente == '.' || precedente == '-') return false;
      lunghezza = 0;
    } else if (std::isalnum(static_cast<unsigned char>(c)) || c == '-') {
      if (c == '-' && precedente == '.') return false;
      if (++lunghezza > 63) return false;
    } else {
      return false;
    }
    precedente = c;
  }
  return precedente != '-' && (precedente != '.' || s.size() > 1);
}

bool topic_valido(std::string_view t) {
  if (t.empty() || t.size() > 1024 || !utf8_senza_controlli(t)) return false;
  if (t.find_first_of("+#\t\r\n") != std::string_view::npos) return false;
  return t.front() != '/' && t.back() != '/' && t.find("//") == std::string_view::npos;
}

std::optional<std::string> controlla_mqtt(const ImpostazioniMqtt& imp) {
  if ((imp.attivo || !imp.host.empty()) && !host_valido(imp.host))
    return "mqtt.host: indirizzo del broker non valido (un nome come broker.casa o un indirizzo "
           "IP)";
  if (imp.porta < 1 || imp.porta > 65535)
    return "mqtt.porta: la porta deve essere un numero da 1 a 65535";
  if (!topic_valido(imp.prefisso))
    return "mqtt.prefisso: prefisso non valido (niente + o #, niente livelli vuoti, "
           "niente / all'inizio o alla fine)";
  std::set<std::string> visti;
  for (std::size_t i = 0; i < imp.stati.size(); ++i) {
    const std::string nome = "mqtt.stati[" + std::to_string(i) + "]";
    if (spoglia(imp.stati[i].entita).empty()) return nome + ".entita: identificativo vuoto";
    if (!topic_valido(imp.stati[i].topic))
      return nome +
             ".topic: topic non valido (niente + o #, niente livelli vuoti, niente / "
             "all'inizio o alla fine)";
    if (!visti.insert(imp.stati[i].topic).second)
      return nome + ".topic: topic gia' usato da un'altra entita'";
  }
  return std::nullopt;
}

Esito<ImpostazioniMqtt> unisci_impostazioni_mqtt(const ImpostazioniMqtt& attuali,
                                                 const Json& corpo) {
  auto male = [](const std::string& testo) { return Errore{400, testo}; };
  if (!corpo.is_object()) return male("mqtt: atteso un oggetto");
  ImpostazioniMqtt imp = attuali;
  auto booleano = [&](const char* chiave, bool& dove) -> std::optional<Errore> {
    if (!corpo.contains(chiave)) return std::nullopt;
    const Json& v = corpo[chiave];
    if (!v.is_boolean()) return male(std::string("mqtt.") + chiave + ": atteso vero o falso");
    dove = v.get<bool>();
    return std::nullopt;
  };
  auto testo = [&](const char* chiave, std::string& dove) -> std::optional<Errore> {
    if (!corpo.contains(chiave)) return std::nullopt;
    const Json& v = corpo[chiave];
    if (!v.is_string()) return male(std::string("mqtt.") + chiave + ": atteso un testo");
    dove = spoglia(v.get<std::string>());
    return std::nullopt;
  };
  for (auto e : {booleano("attivo", imp.attivo), booleano("tls", imp.tls), testo("host", imp.host),
                 testo("utente", imp.utente), testo("prefisso", imp.prefisso)})
    if (e) return *e;
  if (corpo.contains("porta")) {
    const Json& v = corpo["porta"];
    auto n = v.is_boolean() ? std::nullopt : intero(v);
    if (!n || *n < 1 || *n > 65535 || (v.is_number_float() && std::trunc(v.get<double>()) != v))
      return male("mqtt.porta: la porta deve essere un numero da 1 a 65535");
    imp.porta = static_cast<int>(*n);
  }
  if (corpo.contains("password")) {
    const Json& v = corpo["password"];
    if (v.is_null()) {
      imp.password.clear();
    } else if (!v.is_string()) {
      return male("mqtt.password: atteso un testo");
    } else if (!v.get<std::string>().empty()) {
      imp.password = v.get<std::string>();
    }
  }
  if (corpo.contains("stati")) {
    const Json& v = corpo["stati"];
    if (!v.is_array()) return male("mqtt.stati: attesa una lista di {entita, topic}");
    imp.stati.clear();
    for (std::size_t i = 0; i < v.size(); ++i) {
      const std::string nome = "mqtt.stati[" + std::to_string(i) + "]";
      if (!v[i].is_object()) return male(nome + ": atteso un oggetto {entita, topic}");
      const Json& e = campo(v[i], "entita");
      const Json& t = campo(v[i], "topic");
      if (!e.is_string() && !e.is_null()) return male(nome + ".entita: atteso un testo");
      if (!t.is_string() && !t.is_null()) return male(nome + ".topic: atteso un testo");
      imp.stati.push_back({spoglia(e.is_string() ? e.get<std::string>() : ""),
                           t.is_string() ? t.get<std::string>() : ""});
    }
  }
  if (auto e = controlla_mqtt(imp)) return male(*e);
  return imp;
}

Json mqtt_da_salvare(const ImpostazioniMqtt& imp) {
  Json stati = Json::array();
  for (const auto& s : imp.stati) stati.push_back({{"entita", s.entita}, {"topic", s.topic}});
  return {{"attivo", imp.attivo},     {"host", imp.host},
          {"porta", imp.porta},       {"utente", imp.utente},
          {"password", imp.password}, {"tls", imp.tls},
          {"prefisso", imp.prefisso}, {"stati", stati}};
}

ImpostazioniMqtt mqtt_salvate(const Json& j) {
  ImpostazioniMqtt imp;
  auto t = [&](const char* k, std::string& dove) {
    if (campo(j, k).is_string()) dove = campo(j, k).get<std::string>();
  };
  if (campo(j, "attivo").is_boolean()) imp.attivo = campo(j, "attivo").get<bool>();
  if (campo(j, "tls").is_boolean()) imp.tls = campo(j, "tls").get<bool>();
  if (auto p = intero(campo(j, "porta")); p && *p >= 1 && *p <= 65535) imp.porta = int(*p);
  t("host", imp.host);
  t("utente", imp.utente);
  t("password", imp.password);
  t("prefisso", imp.prefisso);
  if (campo(j, "stati").is_array())
    for (const Json& s : campo(j, "stati"))
      imp.stati.push_back({testo_campo(s, "entita"), testo_campo(s, "topic")});
  return imp;
}

Json mqtt_da_mostrare(const ImpostazioniMqtt& imp) {
  Json j = mqtt_da_salvare(imp);
  j.erase("password");
  j["password_impostata"] = !imp.password.empty();
  return j;
}

std::string topic_disponibilita(const std::string& prefisso) { return prefisso + "/stato"; }

std::vector<MessaggioMqtt> messaggi_scoperta(const Salute& s, const std::string& prefisso) {
  const std::string nodo = nodo_di(prefisso);
  const std::string disponibile = topic_disponibilita(prefisso);
  std::vector<MessaggioMqtt> m;
  for (const SaluteCamera& c : s.telecamere) {
    const std::string id = std::to_string(c.id);
    const std::string base = prefisso + "/telecamere/" + id;
    const Json dispositivo = {{"identifiers", {nodo + "_cam" + id}},
                              {"name", c.nome},
                              {"manufacturer", "nvr"},
                              {"model", "Telecamera"},
                              {"via_device", nodo}};
    m.push_back(configurazione("binary_sensor", nodo, "cam" + id + "_registra",
                               {{"name", "Registra"},
                                {"unique_id", nodo + "_cam" + id + "_registra"},
                                {"device_class", "running"},
                                {"state_topic", base + "/registra"},
                                {"payload_on", "ON"},
                                {"payload_off", "OFF"},
                                {"availability_topic", disponibile},
                                {"device", dispositivo}}));
    m.push_back(configurazione("sensor", nodo, "cam" + id + "_ultimo_segmento",
                               {{"name", "Ultimo segmento"},
                                {"unique_id", nodo + "_cam" + id + "_ultimo_segmento"},
                                {"device_class", "timestamp"},
                                {"state_topic", base + "/ultimo_segmento"},
                                {"availability_topic", disponibile},
                                {"device", dispositivo}}));
  }
  const Json registratore = dispositivo_registratore(nodo);
  m.push_back(configurazione("sensor", nodo, "spazio_libero",
                             {{"name", "Spazio libero"},
                              {"unique_id", nodo + "_spazio_libero"},
                              {"device_class", "data_size"},
                              {"unit_of_measurement", "GB"},
                              {"state_class", "measurement"},
                              {"state_topic", prefisso + "/archivio/spazio_libero"},
                              {"availability_topic", disponibile},
                              {"device", registratore}}));
  m.push_back(configurazione("sensor", nodo, "giorni_rimasti",
                             {{"name", "Giorni rimasti"},
                              {"unique_id", nodo + "_giorni_rimasti"},
                              {"device_class", "duration"},
                              {"unit_of_measurement", "d"},
                              {"state_topic", prefisso + "/archivio/giorni_rimasti"},
                              {"availability_topic", disponibile},
                              {"device", registratore}}));
  m.push_back(configurazione("sensor", nodo, "problemi",
                             {{"name", "Problemi"},
                              {"unique_id", nodo + "_problemi"},
                              {"state_class", "measurement"},
                              {"state_topic", prefisso + "/problemi"},
                              {"json_attributes_topic", prefisso + "/problemi/attributi"},
                              {"availability_topic", disponibile},
                              {"device", registratore}}));
  return m;
}

std::vector<MessaggioMqtt> messaggi_stato(const Salute& s, const std::string& prefisso) {
  std::vector<MessaggioMqtt> m;
  for (const SaluteCamera& c : s.telecamere) {
    const std::string base = prefisso + "/telecamere/" + std::to_string(c.id);
    m.push_back({base + "/registra", c.stato == StatoCamera::registra ? "ON" : "OFF", true});
    m.push_back({base + "/ultimo_segmento",
                 c.ultimo_segmento ? iso_utc(*c.ultimo_segmento) : "None", true});
  }
  m.push_back({prefisso + "/archivio/spazio_libero",
               s.byte_liberi ? con_decimali(double(*s.byte_liberi) / 1e9, 2) : "None", true});
  m.push_back({prefisso + "/archivio/giorni_rimasti",
               s.giorni_rimasti ? con_decimali(*s.giorni_rimasti, 1) : "None", true});
  m.push_back({prefisso + "/problemi", std::to_string(s.problemi.size()), true});
  Json testi = Json::array();
  for (const Problema& p : s.problemi) testi.push_back(p.testo);
  m.push_back({prefisso + "/problemi/attributi", Json{{"problemi", testi}}.dump(), true});
  return m;
}

std::vector<MessaggioMqtt> da_inviare(const std::vector<MessaggioMqtt>& nuovi,
                                      std::map<std::string, std::string>& inviati, bool tutti) {
  std::vector<MessaggioMqtt> uscita;
  std::map<std::string, std::string> dopo;
  for (const MessaggioMqtt& m : nuovi) {
    auto it = inviati.find(m.topic);
    if (tutti || it == inviati.end() || it->second != m.payload) uscita.push_back(m);
    dopo[m.topic] = m.payload;
  }
  for (const auto& [topic, payload] : inviati)
    if (!dopo.count(topic) && !payload.empty()) uscita.push_back({topic, "", true});
  inviati = std::move(dopo);
  return uscita;
}

double attesa_riconnessione(int tentativi) {
  if (tentativi <= 0) return 1;
  return tentativi >= 6 ? 60 : std::min(60.0, double(1 << tentativi));
}

std::string motivo_rifiuto(int codice) {
  switch (codice) {
    case 1: case 0x84: return "versione del protocollo MQTT non accettata dal broker";
    case 2: case 0x85: return "identificativo del client non accettato";
    case 3: case 0x88: case 0x89: return "servizio del broker non disponibile";
    // Brokers answer a wrong password with either code, so the text covers both.
    case 4: case 5: case 0x86: case 0x87: return "nome utente o password non accettati";
    case 0x8A: return "client escluso dal broker";
    default: return "rifiuto con codice " + std::to_string(codice);
  }
}

std::string motivo_irraggiungibile(int errore) {
  switch (errore) {
    case 0: return "nome del broker sconosciuto";
    case ECONNREFUSED: return "nessun broker in ascolto su quella porta";
    case ETIMEDOUT: return "nessuna risposta entro il tempo";
    case EHOSTUNREACH: case ENETUNREACH: return "rete o indirizzo non raggiungibile";
    case ECONNRESET: return "collegamento chiuso dal broker";
    default: return "errore di rete " + std::to_string(errore);
  }
}

std::optional<Json> stato_da_payload(std::string_view payload) {
  if (payload.size() > kMassimoPayloadMqtt || !utf8_senza_controlli(payload)) return std::nullopt;
  const std::string testo = spoglia(payload);
  if (testo.empty()) return std::nullopt;
  auto j = leggi_json(testo);
  if (!j) {
    if (testo.front() == '{' || testo.front() == '[') return std::nullopt;  // broken JSON
    return Json(testo);
  }
  if (j->is_object()) {
    if (!j->contains("state")) return std::nullopt;
    return (*j)["state"];
  }
  return *j;
}

}  // namespace nvr
