// The home-automation entity states that a home-automation system pushes to the program, and
// how a state reads as active.
#pragma once

#include <mutex>

#include "core/esito.h"
#include "core/json.h"

namespace nvr::autonomo {

// The normalised form of an entity state: "on" for the usual active words ("on", "open",
// "aperto", "true", "1", "yes", "si", "detected", "motion", "home", "occupied", "presente", ...
// any letter case, blanks around ignored), for a non-zero number and for true; any other text
// in lower case; "off" for false, zero and null; the JSON text of a list or object.
Json normalize_state(const Json& stato);

// Entity id -> state, in memory. Thread-safe; nothing blocks.
class StatiEntita {
 public:
  // All states, as an object.
  Json tutti() const;

  // Merges `nuovi` (an object entity id -> any JSON value; null removes the entity) and answers
  // all states after the merge; Errore{400, "Stati non validi"} when `nuovi` is not an object
  // (nothing changes then).
  Esito<Json> unisci(const Json& nuovi);

 private:
  mutable std::mutex m_;  // guards stati_
  Json stati_ = Json::object();
};

}  // namespace nvr::autonomo
