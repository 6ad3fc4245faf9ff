// Network shares (SMB or NFS) mounted under the mount root.
#pragma once

#include <string>
#include <tuple>

#include "core/json.h"

namespace nvr {

// Mounts the share described by `dest` (proto, server, share, utente, password). The SMB
// password travels in a 0600 credentials file that never outlives the call. Answers
// (ok, message, mount point). Blocks up to 40 s (NFS) or 3 x 25 s (SMB).
std::tuple<bool, std::string, std::string> monta_rete(const Json& dest);

// Removes the credentials files of mounts still in progress. For the exit path: a process that
// ends in the middle of a mount never gets back to the call that would remove its file, and
// the password must not stay on disk. Safe from any thread; takes no lock across the removal.
void togli_credenziali_in_sospeso();

}  // namespace nvr
