// What changed in the archive since the last look: each folder that can hold segments, by its
// look from outside. A name added, removed or renamed in a folder moves its modification and
// change times, so a file can go missing only from a folder whose look changed (or that went).
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace nvr {

// Folder -> its look ("device:inode:mtime:ctime"); "" for a folder changed within the times'
// granularity of `ora` (a later change might leave its times as they are: it must be looked at
// again).
using FirmeCartelle = std::map<std::string, std::string>;

// The archive root, its folders (cameras, the older flat cam_N layout) and theirs (days,
// in-progress). Absent when the root cannot be read. Blocks on the disk: one stat per folder and
// one listing per camera folder; call it through _con_timeout on a share that may hang.
std::optional<FirmeCartelle> firme_archivio(const std::string& radice, double ora);

// Folders whose look differs between `prima` and `dopo`: changed, new, gone, or "" on either
// side. Pure.
std::vector<std::string> cartelle_cambiate(const FirmeCartelle& prima, const FirmeCartelle& dopo);

// Whether an index row lying directly in one of `cartelle` has no file there. One indexed range
// read and one listing (5 s at most) per folder; a folder that does not exist has all its rows
// missing, one that cannot be read or answers too slowly none. Throws ErroreDb.
bool righe_senza_file_in(const std::vector<std::string>& cartelle);

}  // namespace nvr
