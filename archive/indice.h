// The segment index: finished segments leave the in-progress folders for their day folders and
// become rows of nvr_registrazioni.
//
// A segment is handled once it is 15 s old. In an in-progress folder a file that is not indexed
// yet and is smaller than 1024 bytes or lacks its "moov" box is an abandoned fragment and is
// deleted; in the day folders such files are only left alone. The two name forms are dated
// differently on purpose: in-progress names by the machine's local clock (the recorder expands
// them with its own local time), day-folder names in the host's zone.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/config.h"
#include "core/tempo.h"

namespace nvr {

struct RigaIndice {
  CamId cam_id = 0;
  double inizio = 0.0;
  double fine = 0.0;
  std::string file;
  std::int64_t dimensione = 0;
  std::string motivo;
};

// What the index needs to know of a running recorder: the in-progress folder it writes into
// (the newest file there is still open) and the reason it records for (copied into new rows).
struct RegistratoreInCorso {
  std::string cartella;
  std::string motivo;
};
using RegistratoriInCorso = std::map<CamId, RegistratoreInCorso>;

// One index run, unless another is in progress: then it returns at once, doing nothing
// (_indice_lock, taken with try_lock and released on every path). Orphan "cam_N" folders of the
// archive root are appended to `cams`. Per camera: the in-progress folder and the earlier ones
// (in_corso_precedenti) are drained (at most 300 files per camera and run; the newest file of the
// folder the running recorder writes into is left alone), rows and renames are written in
// batches of 25. `profondo` also adopts the files lying in the day folders of the camera folder
// and of the legacy folder without a row, and retries segments whose move failed. A file that
// cannot be read is skipped; database failures throw ErroreDb (rows already written stay).
// Does nothing when cfg.cartella is empty. `registratori` are the recorders running when the run
// starts. Blocks on the disk and the database; no lock is held across disk or database work.
void _indicizza(const Config& cfg, std::vector<Camera>& cams, bool profondo = false,
                const RegistratoriInCorso& registratori = {});
void _indicizza_dentro(const Config& cfg, std::vector<Camera>& cams, bool profondo,
                       const RegistratoriInCorso& registratori = {});

// The earlier in-progress folders of a camera, which the index drains and then forgets: a
// camera whose folder changed (renamed, archive moved) leaves finished segments behind there.
void aggiungi_in_corso_precedente(CamId id, const std::string& cartella);
std::set<std::string> in_corso_precedenti(CamId id);
void dimentica_in_corso_precedenti(CamId id);
void azzera_indice_per_test();  // forgets them all

// Writes the pending renames ("UPDATE ... SET file=? WHERE file=?", pairs new, old) and rows
// ("INSERT OR IGNORE") in one transaction, then empties both lists. Throws ErroreDb, leaving
// the lists as they were.
void _scrivi_indice(std::vector<RigaIndice>& nuovi,
                    std::vector<std::pair<std::string, std::string>>& rename);

// Whether the file is a finished MP4: "moov" within its first 64 KiB or its last 4 MiB. Any
// error (missing, unreadable, a folder) answers false. Reads at most 64 KiB + 4 MiB.
bool _mp4_completo(const std::string& p);

// Whether `n` is a day folder's name: "YYYY-MM-DD" in digits (the date itself is not checked).
bool _nome_giorno(std::string_view n);

// Start of an in-progress segment named "YYYYmmdd_HHMMSS.mp4", read as the machine's local
// wall-clock time; absent for any other name or a date-time that does not exist in the calendar.
std::optional<double> _inizio_in_corso(const std::string& nome);

// Start of the segment "HH-MM-SS.mp4" or "HH-MM-SS_N.mp4" of day folder "YYYY-MM-DD", read in
// zone `z` (machine local time for nullptr); absent for any other name.
std::optional<double> _inizio_archiviato(const std::string& giorno, const std::string& nome,
                                         Zona z);

}  // namespace nvr
