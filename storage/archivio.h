// The archive root: which folders may be chosen, the folder browser, and the check before every
// engine pass that the archive is mounted, alive, writable and not full.
#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/config.h"

namespace nvr {

// Whether `p` (symbolic links resolved) is one of the allowed roots or inside one: the mount
// root, /media, /mnt, /srv, /home, /Volumes, the configured folder, the drives' mount points.
bool _dentro_radici_permesse(const std::string& p);

struct VoceCartella {
  std::string nome;
  std::string percorso;
};

// The sub-folders of `base`, sorted, hidden names left out; absent when `base` may not be browsed.
std::optional<std::vector<VoceCartella>> cartelle(const std::string& base);

// Creates the folder `nome` (made safe, 60 characters at most) inside `base`:
// (true, "Creata", path) or (false, why, "").
std::tuple<bool, std::string, std::string> crea_cartella(const std::string& base,
                                                         const std::string& nome);

// Makes the archive ready for recording, re-mounting a drive or share that went away (at most
// once every 30 s) and following it to a new mount point (saved in the configuration, so `cfg`
// is updated too). Answers (true, "") or (false, the message the status shows).
std::pair<bool, std::string> _archivio_pronto(Config& cfg);

}  // namespace nvr
