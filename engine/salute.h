// The recorder's health: what each camera is doing, the archive, and the problems an owner must
// see (a camera that silently stopped, a drive gone or full).
//
// The engine refreshes one snapshot after each pass (aggiorna_salute); readers copy it under a
// short mutex and never touch disk or database. The decisions themselves are pure, in
// engine/salute_piano.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/stato.h"

namespace nvr {

enum class StatoCamera {
  registra,   // a recorder runs
  ferma,      // the engine's last plan wanted it, but no segment newer than the rule
  spenta,     // camera or system recording off
  in_attesa,  // waiting for its schedule or an event
};

// "registra", "ferma", "spenta", "in_attesa".
const char* testo_stato(StatoCamera s);

struct SaluteCamera {
  CamId id = 0;
  std::string nome;
  StatoCamera stato = StatoCamera::spenta;
  std::optional<double> ultimo_segmento;  // `fine` of its newest indexed segment (epoch s)
  int avvii_ultima_ora = 0;               // recorder starts in the last hour
  double byte_ora = 0;                    // bytes per hour, measured over its last 24 h of segments
  std::int64_t segmenti = 0;              // indexed segments
  std::int64_t byte = 0;                  // indexed bytes
};

struct Problema {
  std::string codice;  // stable key: "camera_ferma:3", "archivio", "spazio", "ffmpeg", "mqtt", ...
  std::string testo;   // plain Italian, e.g. "La telecamera Ingresso non registra da 12 minuti"
  double da = 0;       // since when (epoch s)
};

struct Salute {
  double quando = 0;  // when the engine made it (0: no pass yet)
  std::vector<SaluteCamera> telecamere;
  bool archivio_collegato = false;
  std::optional<std::uint64_t> byte_liberi, byte_totali;
  std::optional<double> giorni_rimasti;  // days until the archive is full at the measured rate
                                         // (absent when nothing is recorded)
  bool ffmpeg = false;
  std::vector<Problema> problemi;  // the engine's, then those other services raised
};

// The snapshot the engine refreshed after its last pass, with the problems other services
// raised. Cheap: a copy under a short mutex, no I/O. Before the first pass: `quando` is 0 and
// only the other services' problems are listed.
Salute salute_attuale();

// Problems raised by other services (the MQTT link): listed with the others until withdrawn.
// Raising a code already raised with the same text changes nothing; a new code logs
// "problema: <testo>", withdrawing a raised one logs "risolto: <testo>". Never block.
void segnala_problema(const std::string& codice, const std::string& testo);
void ritira_problema(const std::string& codice);

// Engine pass durations (seconds) as a cumulative histogram: conteggi[i] is how many passes
// lasted at most limiti[i]; totale counts every pass, somma adds their durations.
struct IstogrammaGiri {
  std::vector<double> limiti;
  std::vector<std::uint64_t> conteggi;
  std::uint64_t totale = 0;
  double somma = 0;
};
IstogrammaGiri istogramma_giri();

// --- For the engine ---

// Adds one pass's duration to the histogram. Never blocks.
void registra_durata_giro(double secondi);

// Replaces the engine's part of the snapshot. Never blocks beyond the snapshot's mutex.
void pubblica_salute(Salute s);

// Empties the snapshot, the raised problems and the histogram. For tests.
void azzera_salute_per_test();

}  // namespace nvr
