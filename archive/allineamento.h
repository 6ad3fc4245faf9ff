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

// How many rows _righe_senza_file(cfg) would answer, for the archive overview, which asks at
// every request over indexes of millions of rows. A folder is listed again only when it changed
// since the last count (its times or identity) or the names indexed in it did; an answer is
// kept only for folders unchanged for `margine` seconds before they were listed, since a change
// within the granularity of the folder's times would leave them as they were.
std::int64_t conta_righe_senza_file(const Config& cfg, double margine = 3);

// Deletes those rows in one transaction; answers how many. Throws ErroreDb on database failure.
int _allinea(const Config& cfg);

// Forgets the cached presence answer and the overview's remembered folders (for tests).
void azzera_allineamento_per_test();

}  // namespace nvr
