// Index rows whose file is missing, found folder by folder from the per-folder counts kept
// beside the index (archive/sommari.h): a folder whose times and indexed names are as at the
// last look, when it had no missing file, is not listed again; the rows of a folder that must be
// looked at are read from the index on the file path alone. The same answer as listing every
// folder of every row (mancanti_per_posizione).
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace nvr {

struct SenzaFile {
  std::int64_t n = 0;
  std::vector<std::int64_t> id;  // ascending; filled only for Servono::kId
};

enum class Servono { kConteggio, kId };

// The rows without a file, counted or with their ids. Each folder is looked at with a 5-second
// limit; one that cannot be read or answers late says nothing about its files, one that does
// not exist makes all its rows missing. What a look found is remembered only for folders
// unchanged for `margine` seconds before it. Absent when the counts cannot serve: not built yet,
// or a path that is not absolute (the caller reads every row instead). Does not check that the
// archive is present. Blocks on the disk and the database; throws ErroreDb.
std::optional<SenzaFile> senza_file_per_cartelle(Servono cosa, double margine);

// Forgets what the looks found (for tests).
void dimentica_cartelle_per_test();

}  // namespace nvr
