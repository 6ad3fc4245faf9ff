// A signal handled as ordinary code: the handler only writes a byte into a pipe (nothing else is
// safe inside it) and a watcher thread runs the action for each byte it reads.
#pragma once

#include <signal.h>

#include <functional>

namespace nvr {

// Installs the handler for `segnale` (with SA_RESTART) and starts a detached watcher thread that
// calls `azione` once per delivery, as ordinary code in that thread; the previous disposition is
// stored in `*precedente` when given. Meant to be called once per signal for the life of the
// process (a second call replaces the pipe the handler writes to). Throws std::system_error when
// the pipe, the thread or the handler cannot be set up.
void segnale_nel_thread(int segnale, std::function<void()> azione,
                        struct sigaction* precedente = nullptr);

}  // namespace nvr
