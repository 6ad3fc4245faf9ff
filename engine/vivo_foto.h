// Still pictures of a camera: a JPEG of what it shows now, and the test of a stream address
// before it is saved. Each runs one short ffmpeg; neither takes a lock across it.
#pragma once

#include <string>

#include "core/config.h"
#include "core/esito.h"

namespace nvr {

// How long a picture or a connection test may take.
inline constexpr double kAttesaFoto = 6.0;
// How long a camera's picture is served again instead of being taken anew.
inline constexpr double kValiditaFoto = 1.5;

// A JPEG of what camera `cam` shows now (its first bytes FF D8): decoded from the live source's
// latest key frame while one runs, else read from the camera's stream; the same picture again
// for kValiditaFoto seconds. Blocks up to about kAttesaFoto seconds (plus, the first time, the
// question of ffmpeg's version). Fails with "Indirizzo del flusso non valido", "ffmpeg non
// parte: <reason>" or "Immagine non disponibile: <cause as motivo_guasto says it>"; the
// camera's password never appears in the message.
Esito<std::string> istantanea_jpeg(const Camera& cam);

// What a stream address gives, tested before it is saved.
struct ProvaConnessione {
  std::string codec;  // ffmpeg's name: "h264", "hevc", ...
  int larghezza = 0;
  int altezza = 0;
  double fps = 0.0;  // 0 when the stream does not say
  std::string jpeg;  // one picture
};

// Connects to `url` and reads one picture and the stream's description, within about
// kAttesaFoto seconds. Fails with "Indirizzo del flusso non valido", "ffmpeg non parte:
// <reason>", or the cause in plain Italian (motivo_guasto: connection refused, wrong user or
// password, no such path, no answer, unreachable, no video, other); the URL's password never
// appears in the message and nothing is logged.
Esito<ProvaConnessione> prova_connessione(const std::string& url);

// Forgets the cached pictures. For tests.
void azzera_foto_per_test();

}  // namespace nvr
