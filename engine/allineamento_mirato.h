// Reconciliation where the archive changed. The full reconciliation (_allinea) reads every index
// row and lists every folder; on an index of millions of rows the engine runs it only when a
// folder that changed since the last look holds a row without its file, and at least once an
// hour (rows outside the archive's folders, an archive folder or destination changed meanwhile).
#pragma once

#include <string>
#include <vector>

#include "archive/firme_cartelle.h"
#include "core/config.h"

namespace nvr {

// What the engine remembers between two reconciliations.
struct MemoriaAllineamento {
  std::string archivio;        // folder | tipo | mountpoint of the archive looked at
  double ultimo_completo = 0;  // when _allinea last ran (epoch seconds), 0 never
  FirmeCartelle firme;         // the archive's folders then; empty when unknown
};

struct SceltaAllineamento {
  bool completo = false;                 // run _allinea now
  std::vector<std::string> da_guardare;  // otherwise: the changed folders to check first
};

// Every this many seconds reconciliation runs in full whatever changed.
inline constexpr double kAllineamentoCompleto = 3600;

// Pure. In full when nothing is remembered, the archive changed (`archivio`), the folders could
// not be read (`firme` absent) or the last full run is kAllineamentoCompleto old; otherwise the
// folders whose look changed.
SceltaAllineamento scegli_allineamento(const MemoriaAllineamento& prima,
                                       const std::string& archivio,
                                       const std::optional<FirmeCartelle>& firme, double adesso);

// The engine's reconciliation job: answers the rows removed, as _allinea does (0 and nothing
// remembered while the archive is not present). Engine thread only (its memory is guarded by
// _giro_lock). Blocks on the disk (5 s per folder at most) and the database; throws ErroreDb.
int allinea_dove_cambiato(const Config& cfg, double adesso);

void azzera_allineamento_mirato_per_test();

}  // namespace nvr
