// The archive's layout on disk: camera folders, in-progress folders, day folders, and the move
// of a finished segment to its final name.
//
//   ROOT/CAMERA/in_corso/YYYYmmdd_HHMMSS.mp4   being written by the recorder
//   ROOT/CAMERA/YYYY-MM-DD/HH-MM-SS[_N].mp4    finished, named by start time in the host's zone
//   ROOT/cam_ID/YYYYmmdd_HHMMSS.mp4            the older flat layout, still read
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/config.h"

namespace nvr {

// The camera's folder name: its safe name; "telecamera_<id>" when that is "unita"; the safe
// name + "_" + id when another camera of `cams` has the same safe name ignoring case.
std::string _nome_cartella_cam(const Camera& cam, const std::vector<Camera>& cams = {});
std::string _cartella_camera(const Config& cfg, const Camera& cam,
                             const std::vector<Camera>& cams = {});
std::string _cartella_in_corso(const Config& cfg, const Camera& cam,
                               const std::vector<Camera>& cams = {});

// ("YYYY-MM-DD", "HH-MM-SS") of `ts` in the host's zone (machine local time without one).
std::pair<std::string, std::string> _giorno_di(double ts);

// The first free final path for a segment of camera folder `cart_cam` started at `inizio`:
// DAY/HH-MM-SS.mp4, else DAY/HH-MM-SS_1.mp4, _2 ... The day folder is not created.
std::string _destinazione_spezzone(const std::string& cart_cam, double inizio);

// Moves the in-progress file `sorgente` to its final place (creating the day folder and handing
// it to the server's user). Answers the final path when moved; `sorgente` itself when it could
// not be moved and still exists (a failure other than "not found" is logged once per file,
// unless it is already marked non_spostabile); nothing when the file has vanished.
std::optional<std::string> _sposta_spezzone(const std::string& sorgente,
                                            const std::string& cart_cam, double inizio);

// The segments whose move failed: they are indexed where they lie and retried only by a deep
// index run. Guarded by this module's own mutex; never blocks.
bool non_spostabile(const std::string& p);
void segna_non_spostabile(const std::string& p, bool si);
void azzera_posizione_per_test();  // forgets them all

// Removes the folders left empty above the removed file `percorso`, walking up to (not
// including) `radice`; never an "in_corso" folder, never anything outside `radice`. Never fails.
void _togli_cartelle_vuote(const std::string& percorso, const std::string& radice);

}  // namespace nvr
