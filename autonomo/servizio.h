// What changes when the program runs as a system service: it tells the service manager
// (systemd, through sd_notify) when it is ready, that it is alive and when it stops, and it
// never writes the first password where the journal would keep it.
#pragma once

#include <functional>
#include <string>

#include "core/esito.h"

namespace nvr::autonomo {

// How long the engine may go without a sign of life (engine/motore.h) before the watchdog stops
// confirming that the process is alive: longer than any pass that is slow but still working
// (a retention pass over a large archive, a deletion holding the passes back).
inline constexpr double kSilenzioMassimoMotore = 300;

// Pure: whether the engine counts as alive at `adesso` (steady seconds), given its last sign
// of life and when the program started (the engine thread may not have run yet).
bool motore_vivo(double adesso, double ultimo_segno, double avvio, double limite);

// READY=1 with a status line. Does nothing when no service manager listens (NOTIFY_SOCKET
// unset); never blocks.
void notifica_pronto(const std::string& stato);

// STOPPING=1: the stop has begun. From now on the watchdog is confirmed without asking the
// engine, whose passes are held back while the recorders finalise their segments: the
// manager's stop timeout bounds that instead. Never blocks.
void notifica_arresto();

// When the manager asked for a watchdog (WATCHDOG_USEC), starts a detached thread that sends
// WATCHDOG=1 every third of the interval while `vivo()` answers true, and logs once
// "motore bloccato: ..." when it stops confirming. Does nothing otherwise. `vivo` runs on that
// thread and must not block.
void avvia_cane_da_guardia(std::function<bool()> vivo);

// Steady-clock seconds, the clock of ultimo_segno_di_vita_motore().
double adesso_monotono();

// Writes `password` followed by a newline to `<dati>/password-iniziale`, readable by its owner
// only (0600, also when the file existed with other rights; a symbolic link there is refused).
// Answers the file's path, or Errore "Password iniziale non scritta in <path>: <reason>".
// Blocks on the disk.
Esito<std::string> scrivi_password_iniziale(const std::string& dati, const std::string& password);

}  // namespace nvr::autonomo
