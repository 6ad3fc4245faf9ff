// Values between the host's interpreter and the recorder's JSON. Call with the GIL held.
#pragma once

#include <pybind11/pybind11.h>

#include "core/json.h"

namespace nvr::python {

// null, booleans, numbers, texts (invalid UTF-8 replaced), lists and objects (in their order).
pybind11::object in_python(const Json& v);

// None, bool, int, float, str, lists and tuples, mappings (keys as their text). Anything else,
// and an integer beyond 64 bits, becomes its text: a host's state may be any object, and the
// recorder only ever compares texts. Nesting deeper than 64 levels is cut off as text too.
Json da_python(pybind11::handle v);

}  // namespace nvr::python
