// SIGTERM and process exit for hosts written in C++ (the standalone program, the test host).
// A host written in Python installs its own through the interpreter instead.
#pragma once

#include <functional>

namespace nvr {

// Installs a SIGTERM handler that only records the signal (a byte into a pipe: nothing else is
// safe inside a handler). A watcher thread then runs `gestore` as ordinary code and afterwards
// calls the handler that was installed before, with SIGTERM, or, when there was none (default or
// ignore disposition), runs the exit actions and ends the process with status 0. Throws
// std::system_error when the pipe or the thread cannot be created.
void installa_sigterm_nativo(std::function<void()> gestore);

// Adds an action run once when the process exits normally (std::exit or return from main) or
// ends through the SIGTERM path above.
void registra_uscita_nativa(std::function<void()> azione);

}  // namespace nvr
