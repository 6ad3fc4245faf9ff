// The ffmpeg recorders: one child process per recording camera, in _processi.
//
// _lock is taken only briefly to read or change _processi and _errori_recenti; it is never held
// while a process starts, is signalled or waited for, or while a log is read.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/config.h"
#include "core/stato.h"

namespace nvr {

// Whether an executable "ffmpeg" is on PATH.
bool ffmpeg_presente();

// The installed ffmpeg's major version, asked once per process ("ffmpeg -version", 10 s);
// 5 when it cannot be told, and then 5 for good. Blocks up to 10 s the first time; no lock.
int _ffmpeg_major();

// The major version in the output of "ffmpeg -version" (first "ffmpeg version [n]<major>."),
// 5 when there is none.
int major_da_versione(const std::string& uscita);

// <temp dir>/zuna_nvr_<uid>/ffmpeg_<cid>.log, the temp dir being $TMPDIR or /tmp and uid the
// process's real user id. The folder is created (mode 0700: ffmpeg's errors may quote the
// camera's password); errors are ignored.
std::string _log_ffmpeg(CamId cid);

// The recorder's argument list for stream `url` writing `segmento`-second segments (300 for 0)
// into `cartella`; `major` picks the socket time-out option ("-stimeout" below 5, "-timeout"
// from 5), which, like TCP transport, is given only to "rtsp..." streams (any letter case).
std::vector<std::string> argomenti_ffmpeg(const std::string& url, int segmento,
                                          const std::string& cartella, int major);

// Starts camera `cam`'s recorder into its in-progress folder (created first, even for a URL
// that is then refused) and records it in _processi, replacing any record there (whose process
// the caller must have stopped: it is not stopped here). Its standard error goes to the
// truncated _log_ffmpeg(cam.id) (0600, never through a link), or nowhere when that cannot be
// opened.
// Answers (true, "") or (false, message): "Cartella <dir> non scrivibile: <reason or permessi>",
// "Indirizzo del flusso non valido" (not rtsp://, rtsps://, http://, https://), "ffmpeg non
// parte: <reason>". Blocks on the folder checks (and on _ffmpeg_major the first time), not on
// the recorder. Must not be called with _lock held.
std::pair<bool, std::string> _avvia(const Config& cfg, const Camera& cam, const std::string& motivo,
                                    const std::vector<Camera>& cams = {});

// Stops camera `cid`'s recorder, if any: SIGINT so that the last segment is finalised, up to
// 20 s, then SIGKILL (both to the recorder's own process group), without waiting after the
// SIGKILL; the child is reaped in the background. The record leaves _processi first, so each
// recorder is stopped once even when several threads ask; the thread that finds no record
// returns at once and logs nothing. Logs "registrazione telecamera <cid> fermata (<perche or
// fine>)". Blocks up to 20 s; must not be called with _lock held.
void _ferma(CamId cid, const std::string& perche = "");

// Stops every recorder of a snapshot of _processi, one after the other (up to 20 s each).
void _ferma_tutto(const std::string& perche = "");

// Closes the record's log file; never fails.
void _chiudi_log(const Registratore& p);

// The last non-blank line of the camera's log (among its last 4000 characters), stripped and
// cut to 200 characters; "" when there is none or the log cannot be read (or is a link, which
// is not followed). Invalid UTF-8 comes back as U+FFFD, so the text can go into JSON as it is.
std::string _ultima_riga_log(CamId cid);

// The same rules applied to text already read: `coda` is the tail of a log.
std::string ultima_riga_di(std::string_view coda);

// Reaps the recorders whose process has ended: each leaves _processi, its failure goes into
// _errori_recenti ({errori + 1, last log line or "ffmpeg terminato (codice N)", now}, N being
// minus the signal number for a killed one) and "telecamera <cid>: ffmpeg terminato: <line>" is
// logged. A record that another thread took out (or replaced) meanwhile is left to that thread.
// Does not block; must not be called with _lock held.
void _controlla_processi();

}  // namespace nvr
