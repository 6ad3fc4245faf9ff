// The thin side of the health model: after each engine pass it gathers what the decisions in
// engine/salute_piano.h need, evaluates them, logs the problems that appeared or cleared, and
// publishes the snapshot (engine/salute.h).
#pragma once

#include "engine/piano_giro.h"

namespace nvr {

// Engine thread only, holding _giro_lock (which guards the collector's memory between passes),
// not the recorder table's mutex. `s` is the pass's
// situation (its decisions are kept from the last pass that made them, while the archive or
// ffmpeg are missing). Reads the recorder table, the archive's free space (cached, at most 5 s
// on a hung filesystem), two indexed lookups per camera in the index, and every 300 s the bytes
// of each camera's last 24 h from the (cam_id, inizio) index. Logs "problema: <testo>" and
// "risolto: <testo>". Throws ErroreDb when the index cannot be read (nothing is published then).
void aggiorna_salute(const Situazione& s);

// The margin added to twice the segment length before a wanted camera counts as stopped
// (kMargineFerma unless a test lowered it).
void imposta_margine_ferma_per_test(double secondi);

// Forgets the decisions, the cached figures and the problems seen. For tests.
void azzera_raccolta_salute_per_test();

}  // namespace nvr
