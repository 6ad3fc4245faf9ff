// What a command said, for the mount code's messages.
#pragma once

#include <string>

#include "core/testi.h"
#include "storage/comando.h"

namespace nvr {

// What a failed command said: its error text, else its output, else `ripiego`. A text of blanks
// only counts as nothing said. The text is returned as it is, not trimmed.
std::string detto(const RisultatoComando& r, const std::string& ripiego);

}  // namespace nvr
