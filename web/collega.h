// Attaching the recorder to a host application.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/host.h"

namespace nvr {

// One row of the route table.
struct Rotta {
  const char* percorso;
  const char* endpoint;
  std::vector<std::string> metodi;
  Vista gestore;
};

// The fifteen routes, in registration order.
const std::vector<Rotta>& rotte();

// Attaches the recorder to `host` once: records it as A, creates the tables, registers every
// route as login_required(admin_required(handler)), arranges for the recorders to stop at exit
// and at SIGTERM (and for the SMB credentials files of mounts cut short to go), starts the
// engine thread "zn-nvr" and logs "modulo avviato (ffmpeg: ...)".
// Answers false, doing nothing, when already attached. Throws std::runtime_error
// "collega(): il modulo passato non ha un oggetto app Flask" when the host has no app (it then
// stays attached, so later calls answer false), and whatever table creation or route
// registration throws.
bool collega(std::shared_ptr<Host> host);

// What SIGTERM does before the host chains to its previous handler (or exits with status 0):
// stops every recorder with the reason "arresto del server".
void _su_sigterm();

// Waits until the engine thread started by collega has returned (after arresta_motore); returns
// at once when none was started. Blocks as long as the current pass lasts.
void attendi_fine_motore();

}  // namespace nvr
