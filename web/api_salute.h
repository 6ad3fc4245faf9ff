// The recorder's health over HTTP: a bare verdict for uptime monitors and the whole snapshot for
// the status page. Both read engine/salute.h's snapshot: no disk, no database, no waiting.
#pragma once

#include "core/host.h"
#include "core/richiesta.h"

namespace nvr {

// GET /api/salute: 200 {"stato": "ok"}, or 503 {"stato": "problemi", "problemi": N} while there
// are problems. Nothing secret: meant to be open to monitors.
Risposta api_salute(const Richiesta& r);

// GET /api/salute/dettagli: {"stato": "ok"|"problemi", "quando", "adesso",
// "problemi": [{codice, testo, da}], "telecamere": [{id, nome, stato ("registra", "ferma",
// "spenta", "in_attesa"), ultimo_segmento (epoch s or null), eta_ultimo_segmento (seconds or
// null), avvii_ultima_ora, byte_ora, segmenti, byte}], "archivio": {collegato, byte_liberi,
// byte_totali, giorni_rimasti (each null when unknown)}, "ffmpeg"}. Always 200.
Risposta api_salute_dettagli(const Richiesta& r);

// Adds /api/salute without guards and /api/salute/dettagli behind `login` (when not empty).
// `admin` is not needed by either.
void registra_rotte_salute(AppWeb& app, const Guardia& login, const Guardia& admin);

}  // namespace nvr
