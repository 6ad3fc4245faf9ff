// The MQTT link to a home-automation broker: announces the cameras and the archive to Home
// Assistant (discovery), publishes their states from the health snapshot, and delivers the
// states arriving on the configured entity topics to the host.
//
// One thread of its own owns the connection: it connects (with back-off 1 s doubling to 60 s),
// publishes "online" on <prefisso>/stato (last will "offline"), the discovery configurations
// and the states (retained; on change, checked every second, and all of them every 60 s), and
// runs the network loop. A broker that is down or refuses the login raises the problem "mqtt"
// (engine/salute.h) and withdraws it once connected; it never disturbs recording. The password
// appears in no log, payload or problem text.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "core/json.h"
#include "engine/mqtt_messaggi.h"

namespace nvr {

// Receives (entity id, state) for every accepted payload on a configured topic, on the link's
// thread. It must not block (store the state, wake the engine).
using RiceviStato = std::function<void(const std::string& entita, const Json& stato)>;

// Starts the link with `imp`, or reconfigures the running one (a changed setting reconnects; an
// inactive `imp` publishes "offline", disconnects and withdraws the problem). Never blocks: the
// link's thread picks the settings up within a moment. `ricevi` replaces the previous one.
void configura_mqtt(const ImpostazioniMqtt& imp, RiceviStato ricevi);

// Stops the link as configura_mqtt with inactive settings would, and waits up to `limite`
// seconds for "offline" to be sent and the thread to end. For the process's exit and tests.
void ferma_mqtt(double limite = 3);

// Where the link stands, for the settings page.
enum class FaseMqtt {
  spento,           // no broker configured, or the link switched off
  in_collegamento,  // first attempt under way
  collegato,        // the broker accepted the session
  irraggiungibile,  // no connection could be opened, or it dropped; retrying with back-off
  rifiutato,        // the broker answered and refused the session (login, client id, ...)
};
const char* nome_fase(FaseMqtt f);  // "spento", "in_collegamento", ...

struct StatoMqtt {
  bool collegato = false;
  FaseMqtt fase = FaseMqtt::spento;
  std::string messaggio;  // Italian, one line, the same text as the problem "mqtt" when failing
  std::uint64_t scartati = 0;  // incoming payloads dropped: too big, malformed, unknown topic
  std::uint64_t ricevuti = 0;  // incoming payloads delivered to RiceviStato
};
// Never blocks.
StatoMqtt stato_mqtt();

}  // namespace nvr
