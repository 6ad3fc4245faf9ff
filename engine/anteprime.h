// Pictures on the playback timeline: the key frame of a recorded segment nearest a moment, as a
// small JPEG made once with ffmpeg and then kept in the cache folder nvr_anteprime/ beside the
// database file (never inside the archive). The decisions are in anteprime_piano.h.
#pragma once

#include <cstdint>
#include <string>

#include "core/config.h"
#include "core/esito.h"

namespace nvr {

// How long ffmpeg may take for one picture.
inline constexpr double kAttesaAnteprima = 10.0;

// The cache folder: nvr_anteprime/ in the folder of the host's DB_FILE; "" while no host is
// attached.
std::string cartella_anteprime();

// The path of the cached JPEG (at most 320 pixels wide) of the key frame nearest moment `t`
// (Unix seconds) of camera `cam`: within the segment holding `t`, else the nearest segment within
// kVicinanzaAnteprima, among the index rows whose file is present. Made at the first request:
// ffmpeg writes a temporary file, renamed into place once complete, so a picture is either
// whole or absent; requests for the same picture meanwhile wait for that one ffmpeg (no lock
// is held across it). Blocks on the database, the disk and up to about kAttesaAnteprima for
// ffmpeg. Fails with codice 404 "Nessuna registrazione in quel momento" when no segment is
// near, else 502 with the reason ("Anteprima non disponibile: ..."). Throws ErroreDb when the
// database fails.
Esito<std::string> anteprima(CamId cam, double t);

// Cache hygiene: deletes the pictures of segments no longer in the index, leftover temporary
// files, then the oldest pictures while the cache exceeds kMassimoAnteprime. Answers how many
// files it deleted. Deletes nothing when the index cannot be read (that failure is logged).
// Never throws. Blocks on the disk and the database; takes no lock.
int pulisci_anteprime();

}  // namespace nvr
