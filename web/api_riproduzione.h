// Playing and exporting a camera's recordings as one timeline across its segments. These are
// not among the recorder's /api/nvr routes: a host adds them with registra_rotte_riproduzione().
//
// Common bad input, checked in this order (JSON errors by errore_json):
//   cam not a positive integer -> 400 "Telecamera non valida"; a camera neither configured nor
//   in the index -> 404 "Telecamera non trovata"; da or a not finite numbers -> 400 "Parametri
//   non validi: da e a sono secondi dal 1970"; a <= da -> 400 "La fine deve venire dopo
//   l'inizio"; a - da > 86400 -> 400 "Periodo troppo lungo: al massimo 24 ore"; the archive not
//   connected -> 409; no recording whose file is present in the span -> 404 "Nessuna
//   registrazione nel periodo scelto".
// Each handler reads the index (throws ErroreDb when the database fails) and the moov of the
// segments it needs before answering.
#pragma once

#include "core/host.h"
#include "core/richiesta.h"

namespace nvr {

// GET /api/flusso?cam&da[&a]: fragmented MP4 of [da, a), streamed (see flusso_riproduzione).
// Default a: the end of the run holding da (or the first run after it), within da's local day.
// Headers X-Nvr-Inizio (wall time of media time 0, 3 decimals), X-Nvr-Buchi (JSON [[da, a],...]
// of the gaps inside the span), X-Nvr-Codec. Reads only the first segment's moov before
// answering.
Risposta api_flusso(const Richiesta& r);

// GET /api/esporta?cam&da&a: the span as one MP4 file (moov first, gaps collapsed), with
// Content-Length, Content-Disposition (attachment, see nome_esportazione), X-Nvr-Inizio,
// X-Nvr-Buchi, and X-Nvr-Sha256 when the hash of these bytes is already known. The same rows and
// files give the same bytes; an export sent to its end remembers its hash.
Risposta api_esporta(const Richiesta& r);

// GET /api/esporta/impronta?cam&da&a: {"status": "success", "sha256", "byte", "nome", "inizio",
// "fine", "buchi"} of the bytes api_esporta sends for the same query. Reads every byte (blocks
// on the disk) unless the hash is remembered; remembers it.
Risposta api_impronta(const Richiesta& r);

// Adds the routes above to `app`, each behind `login` then `admin` (either may be empty).
void registra_rotte_riproduzione(AppWeb& app, const Guardia& login, const Guardia& admin);

}  // namespace nvr
