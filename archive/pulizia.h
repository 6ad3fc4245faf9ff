// Retention: deletes recordings older than the configured days and, oldest first, as many as
// needed to keep the configured free space; drops rows of vanished files; purges old events.
#pragma once

#include "core/config.h"

namespace nvr {

// One retention run. Does nothing at all while the archive is absent. Never deletes a file
// outside the archive root. `forza` is accepted from the archive check and changes nothing.
// Throws ErroreDb on database failure.
void _pulizia(const Config& cfg, bool forza = false);

}  // namespace nvr
