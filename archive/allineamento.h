// Reconciliation of the index with the files present, only while the archive is known present.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "core/config.h"

namespace nvr {

// Of `percorsi`, those whose file is missing, with one listing per folder (5 s each): a missing
// folder makes all its files missing; a folder that cannot be read or times out makes none.
std::set<std::string> _mancanti(const std::vector<std::string>& percorsi);
// The same answer by position: element i tells whether percorsi[i] is missing. For callers that
// hold one row per path, so that millions of rows need no lookup of their path in a set.
std::vector<bool> mancanti_per_posizione(const std::vector<std::string>& percorsi);

// Whether the archive is present and reachable now: a non-empty folder that exists (3 s), on a
// live mount for USB and network destinations. Cached `fresco` seconds per configuration
// signature (folder | tipo | mountpoint).
bool _archivio_presente(const Config& cfg, double fresco = 5);

// Ids of index rows whose file is missing; empty while the archive is not present.
std::vector<std::int64_t> _righe_senza_file(const Config& cfg);

// Deletes those rows in one transaction; answers how many. Throws ErroreDb on database failure.
int _allinea(const Config& cfg);

}  // namespace nvr
