// The ffmpeg recorders: one child process per recording camera.
//
// The recorder table (_processi, camera -> running recorder) and the failure records
// (_errori_recenti) belong to this module and are guarded by its mutex _lock, which is taken
// only briefly and never while a process starts, is signalled or waited for, or while a log is
// read. Other modules see them through snapshots.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/config.h"
#include "core/processo.h"
#include "core/stato.h"

namespace nvr {

// An open log file shared by the copies of a recorder record; closed once.
class FileLog {
 public:
  explicit FileLog(int fd) : fd_(fd) {}
  ~FileLog() { chiudi(); }
  FileLog(const FileLog&) = delete;
  FileLog& operator=(const FileLog&) = delete;
  int fd() const;
  void chiudi();  // idempotent, never fails

 private:
  mutable std::mutex m_;
  int fd_;  // guarded by m_
};

// A running ffmpeg recorder.
struct Registratore {
  std::shared_ptr<Processo> proc;
  std::shared_ptr<FileLog> log;  // null when the log could not be opened
  double da = 0.0;               // start time, epoch seconds
  std::string motivo;            // "continua", "orario" or "evento"
  std::string cartella;          // the in-progress folder it writes into
  int segmento = 300;            // segment length it was started with, seconds
  int errori = 0;                // failures carried over from the previous record
  std::string ultimo_errore;
};

// The last failure of a camera's recorder.
struct ErroreRecente {
  int n = 0;          // consecutive failures
  std::string testo;  // last error text
  double ts = 0.0;    // when, epoch seconds
};

// ---- The table, seen from outside (each call takes the mutex briefly; never blocks) ----

// A copy of the recorder table; the processes are shared, not copied.
std::map<CamId, Registratore> registratori_in_corso();
// How many recorders each camera started in the hour before `adesso` (cameras with none are
// left out).
std::map<CamId, int> avvii_ultima_ora(double adesso);
// The camera's running recorder, if any.
std::optional<Registratore> registratore_di(CamId cid);
// A copy of the failure records.
std::map<CamId, ErroreRecente> errori_recenti();
// Counts one more failure to start camera `cid`'s recorder, with its text and the time now.
void segna_errore_avvio(CamId cid, const std::string& testo);
// The running recorder of `cid` now records for `motivo` (no effect without one).
void conferma_motivo(CamId cid, const std::string& motivo);
// Enters a recorder started elsewhere into the table, replacing any record there (whose process
// the caller must have stopped). For tests that need a recorder without a camera.
void adotta_registratore(CamId cid, Registratore r);
// Empties the table and the failure records without stopping anything, and forgets the ffmpeg
// version. For tests only, with no recorder running.
void azzera_registratori_per_test();

// Whether an executable "ffmpeg" is on PATH.
bool ffmpeg_presente();

// The installed ffmpeg's major version, asked once per process ("ffmpeg -version", 10 s);
// 5 when it cannot be told, and then 5 for good. Blocks up to 10 s the first time; no lock.
int _ffmpeg_major();
// Forgets the version asked, so that the next call asks again (for tests).
void dimentica_versione_ffmpeg();

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
