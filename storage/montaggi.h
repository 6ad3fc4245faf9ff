// Questions about mounted storage, each answered within a time limit so that a dead drive or an
// unreachable share answers "no" instead of blocking; and the plain-words reading of mount errors.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "core/json.h"
#include "core/stato.h"

namespace nvr {

// Size and free space of a filesystem, as shown to users (GB of 10^9 bytes, one decimal).
struct Spazio {
  double totale_gb = 0.0;
  double libero_gb = 0.0;
  int usato_pct = 0;  // used share, rounded half to even; 0 for a zero-sized filesystem
  Json come_json() const;  // {totale_gb, libero_gb, usato_pct}
};

// Whether `p` is a mount point (5 s limit); false for "" and on any error or time-out.
bool _ismount(const std::string& p);

// The mount point holding `p` (real path, walking up to "/"); "" on error or after 8 s.
std::string _radice_montaggio(const std::string& p);

// The trimmed error text of a failed mount followed by one hint for the user (credentials,
// missing share, unreachable server, missing rights, unreadable filesystem); unchanged when no
// hint applies; "" for "".
std::string _spiega_mount(const std::string& err);

// Size and free space of the filesystem holding `cartella`; absent on any error. May block on a
// hung filesystem: callers on the engine or request threads use _spazio_sicuro.
std::optional<Spazio> _spazio(const std::string& cartella);

// _spazio within 5 s, for an existing folder only, cached for `fresco` seconds (one entry: the
// last folder asked). An absent answer is cached too.
std::optional<Spazio> _spazio_sicuro(const std::string& cartella, double fresco = 30);

// Acceptance check right after mounting at `mp`: a read-only or not-writable mount is unmounted
// again and refused with a message naming `nome` ("Unita'", "Cartella di rete").
std::pair<bool, std::string> _dopo_mount(const std::string& mp, const std::string& nome);

// Whether the archive mounted at `mp` still answers (10 s); for a USB destination the drive must
// also still be present and mounted.
bool _mount_vivo(const Json& dest, const std::string& mp);

// Forgets the cached space reading (for tests).
void azzera_spazio_per_test();

}  // namespace nvr
