// The storage handlers: mount and unmount drives and shares, browse and create archive folders,
// install the missing programs.
//
// They run on the host's request threads and answer every expected failure as
// {status "error", message} with HTTP 400. A mount or unmount holds its request for the whole
// mount time-out (up to 30 s for a drive, 40 s for NFS, 3 x 25 s for SMB).
#pragma once

#include <string>

#include "core/richiesta.h"

namespace nvr {

// Progress of the ffmpeg installation, for the status.
struct Installazione {
  std::string testo;
  bool in_corso = false;
};
Installazione stato_installazione();
void imposta_installazione_per_test(Installazione i);

// POST {tipo, proto, server, share, utente, password | dev, uuid, etichetta}. tipo "rete" mounts
// a share (an empty password re-uses the saved one when server, share and user are the saved
// ones), anything else a USB drive. 400 "Non posso montare: ..." without root rights, 400 with
// the mount's own message when it fails; else 200 {status, message, mountpoint, spazio (fresh,
// or null), unita ({dev, uuid, etichetta} of the drive found, or null)}. Saves nothing.
Risposta api_monta(const Richiesta& r);

// POST {mountpoint}: stops every recorder and unmounts. 200 or 400 {status, message}.
Risposta api_smonta(const Richiesta& r);

// POST {base, nome}: creates the folder; 200 or 400 {status, message, percorso ("" on failure)}.
// GET ?base=...: 200 {status, base, cartelle [{nome, percorso}], spazio (fresh, or null),
// radice (the mount point holding base, "" on the system disk)}; 400 "L'unita' non e'
// montata: ..." for a folder under the mount root whose drive is away, 400 "Cartella non
// leggibile o non ammessa" when base may not be browsed.
Risposta api_cartelle(const Richiesta& r);

// POST: starts installing ffmpeg (and the SMB mount helper) on a background thread and answers
// at once: "ffmpeg e' gia' installato", "Installazione gia' in corso" or "Installazione avviata:
// ..."; 400 without apt-get or without root rights. Progress is shown through stato_installazione().
Risposta api_installa_ffmpeg(const Richiesta& r);

// The installation itself (apt-get as root, up to 900 s), reporting only through stato_installazione()
// and the log. Never throws.
void _installa();

}  // namespace nvr
