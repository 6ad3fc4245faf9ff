// The engine: one background thread that keeps the recorders in line with the configuration.
//
// Every few seconds it runs one pass (_giro) under _giro_lock: it checks the archive and ffmpeg,
// reaps ended recorders, starts, stops or restarts each camera's recorder, records entity
// changes, and runs the periodic archive jobs (index every 10 s, deep index every 600 s,
// reconciliation every 300 s where the archive changed, retention every 3600 s). Request
// handlers never run a pass: they wake the engine with _giro_sicuro().
#pragma once

#include <mutex>
#include <optional>
#include <string>

namespace nvr {

// The engine thread's body: waits up to 10 s (or a wake-up), stops recorders and live processes
// (engine/vivo.h) left by an earlier run, then runs a pass, waits up to 3 s on _sveglia, and so
// on. Never returns (see arresta_motore); a pass that throws is logged as "giro del motore: ..."
// and the loop goes on.
void _motore();

// One pass. Call it only holding _giro_lock. Throws what its jobs throw (database errors, a
// hung archive folder while recording is off).
void _giro();

// Wakes the engine so that a change takes effect within a moment. Never blocks.
void _giro_sicuro();

// Whether a wake-up is pending (set by _giro_sicuro, cleared when a pass starts).
bool giro_richiesto();

// The system-wide problem the last pass found ("" when all is well), for the status.
std::string problema_attuale();

// Keeps engine passes from running while the answer owns the pass lock (_giro_lock): waits for
// a running pass to end, at most `limite` seconds (for ever without one). An answer that does not
// own the lock means a pass is hung and did not end in time. Must not be called holding the
// recorder table's mutex.
std::unique_lock<std::mutex> blocca_giri(std::optional<double> limite = std::nullopt);

// Clears the wake-up, the problem text and the job time stamps. For tests, with no engine thread.
void azzera_motore_per_test();

// Whether recording is switched on and at least one camera is enabled.
bool nvr_attivo();

// Interrupts (SIGINT) the recorders a previous run of the server left running, found by their
// command line; logs "ffmpeg rimasti da un avvio precedente: fermati" and waits 3 s when it found
// some. Runs pkill with root rights where needed (10 s).
void _ferma_orfani();

// The command line pattern of this system's recorders and nothing else.
inline constexpr const char* kModelloOrfani = "ffmpeg .*(in_corso|cam_[0-9]+)/%Y%m%d_%H%M%S\\.mp4";

// Seconds on the steady clock (std::chrono::steady_clock, since its epoch) when the engine
// thread last showed it is alive: when it starts and after every pass, hung or not. 0 before any
// engine thread ran. A host that reports liveness to a service manager stops confirming it once
// this ages, so that a hung engine gets the process restarted. Never blocks.
double ultimo_segno_di_vita_motore();

// Makes a running _motore return after its current pass or wait. For a process that is ending
// (the engine's state is about to be destroyed under it) and for tests. Never blocks.
void arresta_motore();

}  // namespace nvr
