// The health decisions, from observations and the time alone: each camera's state, the problems
// and their Italian texts, the archive's forecast, and which problems appeared or cleared since
// the previous pass. The engine gathers the observations (engine/salute_raccolta.h).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/stato.h"
#include "engine/salute.h"

namespace nvr {

// Added to twice the segment length before a camera that should record counts as stopped: ffmpeg
// needs a few seconds to connect and the index a pass or two to see a closed segment.
inline constexpr double kMargineFerma = 60.0;

struct OsservaCamera {
  CamId id = 0;
  std::string nome;
  bool abilitata = false;  // enabled, with an address
  bool voluta = false;     // the engine's last decision: it must record now
  double voluta_da = 0;    // since when `voluta` holds (epoch s)
  bool in_corso = false;   // a recorder runs
  // When its recorder last started, unless that start was a retry after failures (a camera
  // that keeps failing must not look fresh at every retry).
  std::optional<double> avviato_da;
  std::optional<double> ultima_fine;  // newest indexed segment's end
  int avvii_ultima_ora = 0;
  std::int64_t segmenti = 0;
  std::int64_t byte = 0;
  double byte_24h = 0;                     // bytes of its segments started in the last 24 h
  std::optional<double> primo_inizio_24h;  // the oldest of those starts
};

struct OsservaSalute {
  double adesso = 0;
  bool attivo = false;  // recording switched on system-wide
  int segmento_sec = 300;
  int giorni = 14;           // retention
  double spazio_min_gb = 2;  // free-space floor
  double margine = kMargineFerma;
  bool archivio_collegato = false;
  std::string archivio_messaggio;  // why it is not, from the archive check
  std::optional<std::uint64_t> byte_liberi, byte_totali;
  bool ffmpeg = true;
  std::vector<OsservaCamera> camere;
};

// Pure. With recording on: a camera that should record whose reference — the newest of its
// last segment's end, the moment it became wanted and its recorder's last start — is older than
// 2 x segment length + margine is "ferma" and raises "camera_ferma:<id>" (da = the reference);
// otherwise a running recorder is "registra", a wanted camera without one "in_attesa" (starting),
// an enabled one not wanted "in_attesa", the rest "spenta". Problems "archivio" (not connected),
// "ffmpeg" (missing), "spazio" (free under the floor), "giorni" (the archive holds fewer days than
// the retention at the measured rate). With recording off every camera is "spenta" and nothing
// is a problem. byte_ora is the camera's bytes of the last 24 h over the time they span;
// giorni_rimasti is the free space over the summed rates, absent when nothing was recorded.
// Problem `da` is `adesso` except for stopped cameras (confronta_problemi keeps first sightings).
Salute valuta_salute(const OsservaSalute& o);

// "12 secondi", "1 minuto", "5 minuti", "3 ore", "2 giorni" (whole units, rounded down).
std::string durata_leggibile(double secondi);

struct CambiProblemi {
  std::vector<Problema> problemi;  // `ora`, each keeping the `da` it had in `prima`
  std::vector<std::string> righe;  // "problema: <testo>" for new codes, "risolto: <testo>" for gone
};

// Pure: compares this pass's problems with the previous pass's, by code.
CambiProblemi confronta_problemi(const std::vector<Problema>& prima,
                                 const std::vector<Problema>& ora);

}  // namespace nvr
