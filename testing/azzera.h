// Puts every module's state back to its load-time value and detaches the host, so that each test
// starts from a fresh recorder. Call it with no recorder running and no engine thread.
#pragma once

namespace nvr {

void azzera_stato_per_test();

}  // namespace nvr
