// The configuration handlers: read and change the recorder's settings and each camera's.
//
// Both run on the host's request threads and hold no lock of their own. Saving goes to the
// database; a change takes effect through the engine, which they only wake (_giro_sicuro).
#pragma once

#include <string>

#include "core/json.h"
#include "core/richiesta.h"

namespace nvr {

// GET: 200 {config (without the share password), telecamere, stato, ffmpeg}.
//
// POST, body keys all optional: attivo, segmento_sec, giorni, spazio_min_gb, destinazione,
// cartella. A key that is absent keeps the saved value. A new cartella is trimmed, normalised
// and checked against the storage rules first; a refusal answers 400 with its message and saves
// nothing. The numbers are then clamped (segmento_sec 60..1800, giorni 1..365, spazio_min_gb
// 0.5..500). A number that cannot be read throws std::invalid_argument (nothing saved): the host
// turns it into its generic error answer. On success: saves, stops every recorder when recording
// is now off ("NVR disattivato", may block up to 20 s per recorder), wakes the engine and answers
// 200 {status "success", config (as stored, without the password)}.
// Blocks on the disk and, for a USB destination, on lsblk (10 s).
Risposta api_config(const Richiesta& r);

// POST, body {id, attiva, modo, orari, eventi, post_roll}: 400 "Telecamera non valida" when id
// is missing or not an integer, 404 "Telecamera non trovata" when the host has no such camera;
// else saves the settings, stops that camera's recorder when attiva is empty ("telecamera
// disattivata", up to 20 s), wakes the engine and answers 200 {status, telecamere}. A post_roll
// that is not a number throws std::invalid_argument (nothing saved).
Risposta api_camera(const Richiesta& r);

// The folder as the user typed it, made comparable: blanks around it removed, then "." and ".."
// and doubled slashes resolved lexically, without a trailing "/" (except for "/" itself).
std::string _normalizza_cartella(const std::string& testo);

}  // namespace nvr
