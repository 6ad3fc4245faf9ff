// What the MQTT link says and accepts, as pure functions: the settings and their checks, the
// topic names, the Home Assistant discovery configurations, the state payloads built from a
// health snapshot, which of them changed, and what an incoming payload means.
//
// Topics (prefisso "nvr" by default):
//   <prefisso>/stato                                 "online" / "offline" (retained, last will)
//   <prefisso>/telecamere/<id>/registra              "ON" / "OFF"
//   <prefisso>/telecamere/<id>/ultimo_segmento       ISO 8601 UTC, "None" when it has none
//   <prefisso>/archivio/spazio_libero                GB with 2 decimals, "None" when unknown
//   <prefisso>/archivio/giorni_rimasti               days with 1 decimal, "None" when unknown
//   <prefisso>/problemi                              count
//   <prefisso>/problemi/attributi                    {"problemi": [texts]}
//   homeassistant/<component>/<nodo>/<oggetto>/config   discovery, retained
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/esito.h"
#include "core/json.h"
#include "engine/salute.h"

namespace nvr {

inline constexpr std::size_t kMassimoPayloadMqtt = 64 * 1024;  // larger incoming ones are dropped
inline constexpr const char* kPrefissoScoperta = "homeassistant";

struct StatoDaMqtt {
  std::string entita;  // the entity id the state is stored under (as in /api/stati)
  std::string topic;   // the topic it arrives on (no wildcards)
  bool operator==(const StatoDaMqtt&) const = default;
};

struct ImpostazioniMqtt {
  bool attivo = false;
  std::string host;
  int porta = 1883;
  std::string utente;
  std::string password;  // never shown, logged or published
  bool tls = false;      // verified against the system's certificate authorities
  std::string prefisso = "nvr";
  std::vector<StatoDaMqtt> stati;
  bool operator==(const ImpostazioniMqtt&) const = default;
};

// The settings after applying the object `corpo` (fields as in GET /api/impostazioni's "mqtt";
// absent ones keep `attuali`; a password absent or "" keeps the stored one, null clears it).
// Errore{400, "<campo>: <reason in Italian>"} naming the first bad field, e.g. "mqtt.porta: la
// porta deve essere un numero da 1 a 65535". The whole result is checked (controlla_mqtt).
Esito<ImpostazioniMqtt> unisci_impostazioni_mqtt(const ImpostazioniMqtt& attuali,
                                                 const Json& corpo);

// The first fault of `imp` as "<campo>: <reason>", nothing when usable. An inactive link may
// have no host; its other fields are still checked.
std::optional<std::string> controlla_mqtt(const ImpostazioniMqtt& imp);

// Whether `h` is a host name (letters, digits, '-', dotted labels of 1..63) or an IPv4/IPv6
// address.
bool host_valido(std::string_view h);

// Whether `t` is a topic name one can publish on: non-empty, no '+' or '#', no empty level
// (no leading, trailing or double '/'), no control characters, at most 1024 bytes.
bool topic_valido(std::string_view t);

// The settings as stored (with the password) and as shown (password_impostata instead).
Json mqtt_da_salvare(const ImpostazioniMqtt& imp);
ImpostazioniMqtt mqtt_salvate(const Json& j);  // defaults for missing or mistyped fields
Json mqtt_da_mostrare(const ImpostazioniMqtt& imp);

struct MessaggioMqtt {
  std::string topic;
  std::string payload;
  bool retain = true;
  bool operator==(const MessaggioMqtt&) const = default;
};

std::string topic_disponibilita(const std::string& prefisso);

// The discovery configurations for every camera of `s` and for the recorder's archive.
std::vector<MessaggioMqtt> messaggi_scoperta(const Salute& s, const std::string& prefisso);

// The current states of everything messaggi_scoperta announces.
std::vector<MessaggioMqtt> messaggi_stato(const Salute& s, const std::string& prefisso);

// The messages of `nuovi` to send now: all of them when `tutti`, else those whose payload differs
// from what `inviati` (topic -> payload) remembers; topics remembered but no longer in `nuovi`
// get an empty retained payload (a camera that went away leaves Home Assistant). `inviati` is
// updated to what will have been sent.
std::vector<MessaggioMqtt> da_inviare(const std::vector<MessaggioMqtt>& nuovi,
                                      std::map<std::string, std::string>& inviati, bool tutti);

// Seconds to wait before connection attempt number `tentativi` + 1 after `tentativi` failures
// in a row: 1, 2, 4, ... up to 60.
double attesa_riconnessione(int tentativi);

// Why the broker refused the session, as the settings page says it: a CONNACK return code of
// MQTT 3.1.1 (1..5) or a reason code of MQTT 5 (128 and above).
std::string motivo_rifiuto(int codice);

// Why no connection to the broker could be opened, from the errno of the failed attempt (0 when
// there is none: the name did not resolve).
std::string motivo_irraggiungibile(int errore);

// The state an incoming payload carries, as /api/stati would receive it: a JSON object's
// "state" field, another JSON value as it is, any other text as text (blanks around removed).
// Nothing for a payload over kMassimoPayloadMqtt, empty, not UTF-8 or with control characters,
// or an object without "state".
std::optional<Json> stato_da_payload(std::string_view payload);

}  // namespace nvr
