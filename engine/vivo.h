// The live view: at most one live source per camera, started on demand when its first viewer
// arrives and stopped kAttesaSenzaSpettatori seconds after its last viewer leaves.
//
// The table of live sources (camera -> source) belongs to this module and is guarded by its
// mutex, taken only briefly and never while a process starts, is signalled or waited for; it is
// never taken while a source's own mutex (engine/vivo_sorgente.h) is held, nor the other way
// round.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/config.h"
#include "core/esito.h"
#include "engine/vivo_sorgente.h"

namespace nvr {

// How many cameras may be live at once: each costs one connection to the camera and one ffmpeg.
inline constexpr int kMassimoVivi = 16;

// A new viewer of camera `cam`'s live stream, sharing the camera's live source (started now
// when there is none). Its first read gives the initialisation segment (ftyp, moov), then
// fragments from a key frame on; a camera that sends nothing ends it with an Italian reason
// within about kAttesaDati seconds.
// Fails with "Indirizzo del flusso non valido" (not rtsp://, rtsps://, http://, https://),
// "Troppe telecamere in diretta (al massimo 16): chiudine una e riprova" (the caller answers
// 503), or "ffmpeg non parte: <reason>". Blocks only the first time, to ask ffmpeg's version
// (up to 10 s); never on the camera. Must not be called holding a source's mutex.
Esito<std::unique_ptr<Spettatore>> guarda_dal_vivo(const Camera& cam);

// The live sources running now, by camera id.
std::vector<StatoSorgente> vivi_in_corso();

// The running live source of camera `cid`, or nullptr.
std::shared_ptr<SorgenteVivo> sorgente_di(CamId cid);

// Ends every live source (their viewers get `motivo`) and waits until each ffmpeg is reaped, up
// to about 10 s in all. For a server that is stopping, and for tests.
void ferma_vivi(const std::string& motivo = "server in arresto");

// Kills (SIGKILL) the live processes a previous run left behind, found by kModelloVivi, sparing
// this process's own children; logs "ffmpeg della diretta rimasti da un avvio precedente:
// fermati" when it found some. Runs pgrep (10 s) and kill with root rights where needed (10 s).
void _ferma_vivi_orfani();

// Stops every live source as ferma_vivi does and empties the table and the picture cache. For
// tests.
void azzera_vivo_per_test();

}  // namespace nvr
