// The archive root: which folders may be chosen and the folder browser.
#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/config.h"

namespace nvr {

// Whether `p` (symbolic links resolved, as far as the path exists) is one of the allowed roots
// or inside one: the mount root, /media, /mnt, /srv, /home, /Volumes, the configured folder,
// the drives' mount points. False when `p` cannot be resolved within 5 s. Reads the
// configuration (throws ErroreDb when the database fails) and lsblk only when the fixed roots
// do not already allow `p`.
bool _dentro_radici_permesse(const std::string& p);

// Whether path `p` is the folder `radice` or lies inside it, comparing texts as they are
// ("/mediafoo" is not inside "/media"; a trailing "/" of `radice` does not count). The storage
// layer's name for dentro_cartella (core/percorsi.h).
bool _dentro(const std::string& p, const std::string& radice);

// The fixed allowed roots: the mount root in force, /media, /mnt, /srv, /home, /Volumes.
std::vector<std::string> radici_permesse_fisse();

struct VoceCartella {
  std::string nome;
  std::string percorso;
};

// The sub-folders of `base`, sorted by name, hidden names left out (".*", "lost+found",
// "System Volume Information", "$RECYCLE.BIN"); absent when `base` is not an existing folder
// inside the allowed roots, or cannot be read within 10 s.
std::optional<std::vector<VoceCartella>> cartelle(const std::string& base);

// Creates the folder `nome` (made safe, 60 characters at most) inside `base`:
// (true, "Creata", path) or (false, why, "").
std::tuple<bool, std::string, std::string> crea_cartella(const std::string& base,
                                                         const std::string& nome);

}  // namespace nvr
