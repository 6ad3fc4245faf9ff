// Whether a camera must record now, and the log of its trigger entities' changes.
// Runs on the engine thread, inside a pass.
#pragma once

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "core/config.h"
#include "core/json.h"
#include "core/tempo.h"

namespace nvr {

// Whether the local time `adesso` lies inside any entry of the weekly schedule `orari` (a list
// of {"da": "HH:MM", "a": "HH:MM", "giorni": [0..6]}; "a" exclusive; an entry with da > a runs
// past midnight into the next day; da == a never matches). Malformed entries are skipped.
bool _in_orario(const Json& orari, const std::tm& adesso);

// The host's entity states (an object); an empty object when the host has none, gives an empty
// or non-object answer, or fails. Calls into the host (the Python host takes its GIL there).
Json _stati_attuali();

// Whether one entity state (null when absent) counts as active: the host's normaliser says
// "on"; when it is missing or fails, the state's text in lower case is one of on, open, true,
// 1, playing, detected.
bool _attivo(const Json& stato);

// The decision for one camera: (true, "continua") always; (true, "orario") inside the
// schedule; (true, "evento") while an entity is active and for post_roll seconds after the last
// pass that saw one active (remembered per camera); (false, "") otherwise. `ora` is now.
std::pair<bool, std::string> _deve_registrare(const Camera& cam, const Json& stati,
                                              const std::tm& adesso, double ora = _ora());

// Records in nvr_eventi, in one batch, every change of an entity watched by an enabled event
// camera since the previous call (the first sight of an entity records nothing). A database
// failure is logged as "eventi non salvati: ..." and the rows are dropped; never throws.
void _segna_eventi(const std::vector<Camera>& cams, const Json& stati, double ora = _ora());

// Forgets the post-roll moments and the entity states seen. For tests.
void azzera_decisione_per_test();

}  // namespace nvr
