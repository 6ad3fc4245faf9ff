// Retention: deletes recordings older than the configured days and, oldest first, as many as
// needed to keep the configured free space; drops rows of vanished files; purges old events.
#pragma once

#include "core/config.h"

namespace nvr {

// One retention run; engine thread only, no lock taken. Does nothing at all (no file, row or
// event) while the archive is absent (_archivio_presente). Otherwise, in this order:
// - rows whose file has vanished are dropped;
// - segments that started more than `giorni` days ago (0 counts as 14) are deleted with their
//   rows, and the folders they leave empty are removed;
// - while the free space is below `spazio_min_gb` (0: never), the oldest remaining segments go,
//   the space measured again after each one, until three deletions in a row free nothing
//   measurable or a measurement fails;
// - event rows older than the same cut-off are purged.
// A file whose path and real path both lie outside the archive root is never deleted; one whose
// real path lies outside is never deleted for space. A file that cannot be deleted still leaves
// the index. `forza` is accepted from the archive check and changes nothing. Blocks on the disk
// (each folder listing and each space reading up to 5 s) and on the database; throws ErroreDb.
void _pulizia(const Config& cfg, bool forza = false);

// The same run with the age cut-off `limite` (epoch seconds) instead of now minus `giorni` days:
// a segment or event that started exactly at `limite` stays.
void _pulizia_prima_di(const Config& cfg, double limite);

}  // namespace nvr
