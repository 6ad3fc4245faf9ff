// Browsing and playing the archive: days with recordings, one camera's day, one segment, and the
// overview per camera and day.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "core/richiesta.h"

namespace nvr {

// [start, end) of a local day "YYYY-MM-DD" in the host's zone (machine local time without one):
// local midnight to the next local midnight, so 23 or 25 hours across a clock change. Absent
// for a text that is not a real day.
std::optional<std::pair<double, double>> _intervallo_giorno(const std::string& giorno);

Risposta api_giorni(const Richiesta& r);         // query cam
Risposta api_registrazioni(const Richiesta& r);  // query cam, giorno
Risposta api_video(const Richiesta& r);          // path rid, query scarica

// api_video's answer when it needs neither the disk nor the database: the row's file is known in
// memory (file_video_ricordato) and on a local file system. The host then sends the file, or 404
// "Registrazione non trovata" when it cannot open it, as api_video would. Absent otherwise: ask
// api_video. Never blocks.
std::optional<Risposta> api_video_subito(const Richiesta& r);
Risposta api_archivio(const Richiesta& r);

}  // namespace nvr
