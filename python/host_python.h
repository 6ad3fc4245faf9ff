// The Host offered by a Flask application's module, read from its attributes: app,
// login_required, admin_required, DB_FILE, _zn_fuso, get_all_internal_states, normalize_state.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <optional>
#include <string>

#include "core/host.h"

namespace nvr::python {

// Builds the Host for `modulo`. Call it holding the GIL.
// - app: absent when the module has no `app` (or it is None); collega then refuses the module.
// - login_required / admin_required: transparent on the C++ side, present only when the module
//   has them; the module's own guards wrap every view when it is registered (AppFlask).
// - DB_FILE: read now (os.fspath of it, so a path object works); only when `app` is there.
//   Throws AttributeError (as error_already_set) when it is missing.
// - _zn_fuso, get_all_internal_states, normalize_state: looked up on the module at every call,
//   with the GIL taken, since the host may change them while it runs; their failures and a
//   closing interpreter come back as std::runtime_error, which the engine counts as "no zone" /
//   "no states" / "use the common words".
// - the exit hook goes through Python's atexit and SIGTERM through Python's signal module, so
//   that Flask's and the host's own Python-level handlers keep working (see the .cc).
std::shared_ptr<Host> host_da_modulo(pybind11::handle modulo);

// The zone name behind a host's "tz" value: a text as it is, a zoneinfo.ZoneInfo's `key`, a
// pytz zone's `zone`, otherwise its str(). Absent for None and for an empty text.
std::optional<std::string> nome_zona(pybind11::handle tz);

}  // namespace nvr::python
