// The program's own settings page: the MQTT link and the token that opens /metrics without a
// login. Stored in the table nvr_autonomo_impostazioni (chiave, valore): key 'mqtt' holds the
// link's settings as JSON text, key 'token_metriche' the token as it is.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "core/esito.h"
#include "core/host.h"
#include "core/json.h"
#include "engine/mqtt_messaggi.h"

namespace nvr::autonomo {

struct Impostazioni {
  ImpostazioniMqtt mqtt;
  std::string token_metriche;  // "" when /metrics needs a login
};

// The stored settings (defaults for missing or unreadable rows). Blocks on the database; its
// errors throw ErroreDb.
Impostazioni leggi_impostazioni(const std::string& db_file);

// Stores both keys in one transaction. Blocks on the database; its errors throw ErroreDb.
void salva_impostazioni(const std::string& db_file, const Impostazioni& imp);

// The settings after a POST body {"mqtt": {...}, "metriche": {"token"}} (either part may be
// missing). The token, like the broker password, keeps its stored value when absent or "", and
// is cleared by null. Errore{400, "<campo>: <reason>"} for the first bad field (nothing is to be
// saved then); see unisci_impostazioni_mqtt for the link's fields.
Esito<Impostazioni> unisci_impostazioni(const Impostazioni& attuali, const Json& corpo);

// The answer of GET /api/impostazioni: no password, no token, only whether they are set.
Json impostazioni_da_mostrare(const Impostazioni& imp);

// Registers GET/POST /api/impostazioni behind login(admin(...)). A POST that passes the checks
// is stored, then `applica` runs with the new settings (it must not block: the MQTT link only
// takes them over); the answer is the GET one. GET adds "mqtt_stato": {"fase", "messaggio"},
// where the link stands now (see StatoMqtt; a POST's answer leaves it out, the link has not
// taken the new settings yet). Handlers block on the database.
void registra_rotte_impostazioni(AppWeb& app, const Guardia& login, const Guardia& admin,
                                 const std::string& db_file,
                                 std::function<void(const Impostazioni&)> applica);

}  // namespace nvr::autonomo
