// The segment index: finished segments leave the in-progress folders for their day folders and
// become rows of nvr_registrazioni.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/config.h"

namespace nvr {

struct RigaIndice {
  CamId cam_id = 0;
  double inizio = 0.0;
  double fine = 0.0;
  std::string file;
  std::int64_t dimensione = 0;
  std::string motivo;
};

// One index run, unless another is in progress (then it returns at once). Orphan "cam_N"
// folders of the archive root are appended to `cams`. `profondo` also adopts files lying in the
// day folders and the legacy folders without a row. Database failures throw ErroreDb.
void _indicizza(const Config& cfg, std::vector<Camera>& cams, bool profondo = false);
void _indicizza_dentro(const Config& cfg, std::vector<Camera>& cams, bool profondo);

// Writes the pending renames ("UPDATE ... SET file=? WHERE file=?", pairs new, old) and rows
// ("INSERT OR IGNORE") in one transaction, then empties both lists.
void _scrivi_indice(std::vector<RigaIndice>& nuovi,
                    std::vector<std::pair<std::string, std::string>>& rename);

// Whether the file is a finished MP4: "moov" within its first 64 KiB or its last 4 MiB.
bool _mp4_completo(const std::string& p);

}  // namespace nvr
