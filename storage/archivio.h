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

// Makes the archive ready for recording; engine thread, no lock held. For a USB or network
// destination whose mount is gone or dead: at most once every 30 s (the last failure is kept in
// _ultimo_mount_fallito), stops every recorder and detaches a dead mount lazily, mounts again,
// and follows the drive to a new device name or mount point (`cfg` is updated and saved). Then
// refuses a folder that lies on the system disk, creates the folder and makes it the server
// user's, and when free space is below spazio_min_gb runs one forced clean-up before calling it
// full. Answers (true, "") or (false, the message the status shows). Blocks as long as a mount
// (up to 3 x 25 s for SMB); throws ErroreDb when saving the configuration or the clean-up fails.
std::pair<bool, std::string> _archivio_pronto(Config& cfg);

}  // namespace nvr
