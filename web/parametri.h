// The query parameters the playback routes share, read the same strict way by all of them.
#pragma once

#include <optional>
#include <string>

#include "core/stato.h"

namespace nvr {

// A camera id: 1 to 18 decimal digits and nothing else (no sign, no blanks), above zero.
std::optional<CamId> telecamera_da_testo(const std::string& testo);

// Seconds since 1970 as the query writes them: a finite decimal number ("1700000000.5", "1e9")
// within +-1e11 (about year 5000), so that every later conversion to whole seconds fits;
// absent for anything else ("", "nan", "1e999", "0x10", " 12").
std::optional<double> secondi_da_testo(const std::string& testo);

}  // namespace nvr
