// Deleting recordings: one by id, or a selection (a camera, a day, both, everything), or only
// the index rows whose files are gone. Files go first, rows after; emptied folders are pruned.
#pragma once

#include "core/richiesta.h"

namespace nvr {

// DELETE /api/nvr/registrazione/<rid>: always success, also for an unknown id.
Risposta api_elimina_registrazione(const Richiesta& r);

// DELETE /api/nvr/registrazioni with body {senza_file, cam, giorno, tutto}. Keeps engine
// passes off (blocca_giri) while it stops the affected recorders and empties their in-progress folders. Answers 409
// while the archive is absent (nothing deleted), 400 for a bad selection.
Risposta api_elimina_registrazioni(const Richiesta& r);

}  // namespace nvr
