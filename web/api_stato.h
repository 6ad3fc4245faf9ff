// The read-only status endpoints the pages poll: overall state with one entry per camera,
// a short camera summary, and the storage situation.
#pragma once

#include <string>
#include <utility>

#include "core/json.h"
#include "core/richiesta.h"

namespace nvr {

// {attivo, ffmpeg, cartella, destinazione (no password), montata, spazio, problema,
//  telecamere: [{id, nome, attiva, modo, registrando, da, motivo, file, gb, ultimo, errore}],
//  giorni, segmento_sec, spazio_min_gb, installazione, root_ok, utente}
// Throws ErroreDb on database failure.
Json stato_generale();

// Whether privileged commands can run: (true, "") as root, else "true" through _radice (10 s).
std::pair<bool, std::string> _root_ok();

Risposta api_stato(const Richiesta& r);
Risposta api_riassunto(
    const Richiesta& r);  // {attivo: nvr_attivo(), telecamere: [{id, nome, attiva}]}
Risposta api_storage(const Richiesta& r);  // drives, destination, folder, mount, space, helpers

}  // namespace nvr
