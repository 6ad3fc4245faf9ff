// The recorder's only log channel: one line per event on standard output.
#pragma once

#include <string_view>

namespace nvr {

// Writes "[NVR] <msg>\n" to standard output as one piece and flushes it. The text is never a
// format: percent signs and braces are printed as they are. Safe from any thread.
void _log(std::string_view msg);

}  // namespace nvr
