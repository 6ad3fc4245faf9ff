// The ffmpeg recorders: one child process per recording camera, in _processi.
//
// _lock is taken only briefly to read or change _processi and _errori_recenti; it is never held
// while a process starts, is signalled or waited for, or while a log is read.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/config.h"
#include "core/stato.h"

namespace nvr {

// Whether an executable "ffmpeg" is on PATH.
bool ffmpeg_presente();

// The installed ffmpeg's major version, asked once per process ("ffmpeg -version", 10 s);
// 5 when it cannot be told, and then 5 for good.
int _ffmpeg_major();

// <temp dir>/zuna_nvr_<uid>/ffmpeg_<cid>.log (the folder is created; errors ignored).
std::string _log_ffmpeg(CamId cid);

// The recorder's argument list for stream `url` writing `segmento`-second segments into
// `cartella`; `major` picks the socket time-out option ("-stimeout" below 5, "-timeout" from 5).
std::vector<std::string> argomenti_ffmpeg(const std::string& url, int segmento,
                                          const std::string& cartella, int major);

// Starts camera `cam`'s recorder into its in-progress folder (created first) and records it in
// _processi. Answers (true, "") or (false, message): "Cartella <dir> non scrivibile: ...",
// "Indirizzo del flusso non valido", "ffmpeg non parte: ...". Does not block on the recorder.
std::pair<bool, std::string> _avvia(const Config& cfg, const Camera& cam, const std::string& motivo,
                                    const std::vector<Camera>& cams = {});

// Stops camera `cid`'s recorder, if any: SIGINT so that the last segment is finalised, up to
// 20 s, then SIGKILL. The record leaves _processi first, so each recorder is stopped once even
// when several threads ask. Logs "registrazione telecamera <cid> fermata (<perche or fine>)".
// Blocks up to 20 s; must not be called with _lock held.
void _ferma(CamId cid, const std::string& perche = "");

// Stops every recorder of a snapshot of _processi, one after the other.
void _ferma_tutto(const std::string& perche = "");

// Closes the record's log file; never fails.
void _chiudi_log(const Registratore& p);

// The last non-blank line of the camera's log (among its last 4000 bytes), stripped and cut to
// 200 characters; "" when there is none or the log cannot be read.
std::string _ultima_riga_log(CamId cid);

// Reaps the recorders whose process has ended: each leaves _processi, its failure goes into
// _errori_recenti (count, last log line or "ffmpeg terminato (codice N)", time) and is logged.
void _controlla_processi();

}  // namespace nvr
