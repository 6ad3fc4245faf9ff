// Live view for any host: a camera's live stream, a grid of several cameras over one
// connection, the latest picture, the connection test of an address and the live sources now.
// These are not among the recorder's /api/nvr routes: a host adds them with
// registra_rotte_vivo().
#pragma once

#include <functional>
#include <optional>

#include "core/config.h"
#include "core/host.h"
#include "core/richiesta.h"

namespace nvr {

// The camera to watch for an id, with the address to watch in `url` (a lighter second stream
// when the host has one); nothing for an unknown camera. May block on the database.
using TrovaTelecamera = std::function<std::optional<Camera>(CamId)>;

// The recorder's own camera list, main address.
std::optional<Camera> telecamera_registrata(CamId id);

// How long a request waits for a camera's first bytes before it answers with an error.
inline constexpr double kAttesaPrimiDati = 7.0;

// GET /api/vivo/<id>: fragmented MP4 of the camera's video, chunked, as long as the client
// reads. Blocks up to kAttesaPrimiDati for the first bytes. 404 "Telecamera non trovata"; 503
// when too many cameras are live; 502 with the reason when the camera fails ("ffmpeg non parte:
// ..." when ffmpeg is missing, "La telecamera non risponde..." when it is silent).
Risposta api_vivo(const Richiesta& r, const TrovaTelecamera& trova);

// GET /api/vivo/griglia?cam=1,2,3: the live streams of several cameras over one connection (a
// browser opens only a few connections per server). Frames of: camera id (4 bytes, big endian),
// kind (1 byte: 0 data, 1 end), length (4 bytes, big endian), then the bytes: the camera's
// stream, or for an end the reason in Italian. At most kMassimoVivi cameras; 400 "Telecamere
// non valide" for an empty or malformed list. Does not block.
Risposta api_griglia(const Richiesta& r, const TrovaTelecamera& trova);

// GET /api/vivo/<id>/istantanea: a JPEG of the latest picture (see istantanea_jpeg). 404 for an
// unknown camera, 502 with the reason when no picture can be had. Blocks up to about 6 s.
Risposta api_istantanea(const Richiesta& r, const TrovaTelecamera& trova);

// POST /api/vivo/prova {"url": "rtsp://..."}: what the address sends, within about 6 s:
// {"status": "ok", "codec", "larghezza", "altezza", "fps", "immagine": a data: URL of a JPEG}, or
// 502 with the reason (the password in the address never appears). 400 "Indirizzo del flusso
// non valido" for a missing or non-stream address.
Risposta api_prova_collegamento(const Richiesta& r);

// GET /api/vivo: {"status": "ok", "vivi": [{cam, pid, spettatori, da, byte, codec, larghezza,
// altezza}]}, the live sources now.
Risposta api_vivi(const Richiesta& r);

// Adds the routes above to `app`, each behind `login` then `admin` (either may be empty).
void registra_rotte_vivo(AppWeb& app, const Guardia& login, const Guardia& admin,
                         TrovaTelecamera trova);

}  // namespace nvr
