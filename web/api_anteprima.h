// Pictures on the playback timeline for any host. Not among the recorder's /api/nvr routes: a
// host adds it with registra_rotte_anteprima().
#pragma once

#include "core/host.h"
#include "core/richiesta.h"

namespace nvr {

// GET /api/anteprima?cam=<id>&t=<Unix s>: 200 image/jpeg (at most 320 pixels wide), the key
// frame of camera `cam`'s recordings nearest `t` (see anteprima()), with "Cache-Control: private,
// max-age=86400". Bad input, in this order: `cam` not a positive integer, 400 "Telecamera non
// valida"; a camera neither configured nor in the index, 404 "Telecamera non trovata"; `t` not
// a finite number, 400 "Parametro non valido: t sono secondi dal 1970"; archive not connected,
// 409 "Unità di archivio non collegata: collegala e riprova."; no recording near `t`, 404
// "Nessuna registrazione in quel momento"; ffmpeg failing, 502 with the reason. Blocks up to
// about 10 s the first time a picture is asked for.
Risposta api_anteprima(const Richiesta& r);

// Adds the route above to `app`, behind `login` then `admin` (either may be empty).
void registra_rotte_anteprima(AppWeb& app, const Guardia& login, const Guardia& admin);

}  // namespace nvr
