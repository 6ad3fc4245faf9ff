// Folder probes and repairs: create, is it writable, is it read-only, make it ours.
#pragma once

#include <string>
#include <utility>

namespace nvr {

// Creates `p` with its parents (an existing folder is fine). When the server lacks the rights it
// tries "mkdir -p" as root and then hands the folder to the server's user. Answers (true, "") or
// (false, reason). Blocks on the filesystem (and up to 20 s for the root command).
std::pair<bool, std::string> _mkdir(const std::string& p);

// Whether a file can be created (and removed again) in folder `p`: answered within 8 s, a hung
// or missing folder counts as not writable.
bool _scrivibile(const std::string& p);

// Whether the filesystem holding `p` is mounted read-only: answered within 8 s; an unreachable
// folder is not reported as read-only.
bool _sola_lettura(const std::string& p);

// Makes folder `p` writable by the server's user when it is not: chown to the user and
// "chmod u+rwx" as root. Answers whether it is writable afterwards. Up to ~60 s in the worst case.
bool _intesta(const std::string& p);

}  // namespace nvr
