// The archive check the engine runs before every pass while recording is on.
#pragma once

#include <string>
#include <utility>

#include "core/config.h"

namespace nvr {

// Makes the archive ready for recording; engine thread, no lock held. For a USB or network
// destination whose mount is gone or dead: at most once every 30 s, stops every recorder
// ("archivio staccato") and detaches a dead mount lazily, mounts again, and follows the drive to
// a new device name or mount point (`cfg` is updated and saved). Then refuses a folder that lies
// on the system disk, creates the folder and makes it the server user's, and when free space is
// below spazio_min_gb runs one forced retention before calling the archive full. Answers
// (true, "") or (false, the message the status shows): "Nessuna cartella di archivio scelta",
// the mount's or the folder's message, "Spazio esaurito sull'archivio (N GB liberi)". Blocks as
// long as a mount (up to 3 x 25 s for SMB); throws ErroreDb when saving the configuration or the
// retention fails.
std::pair<bool, std::string> _archivio_pronto(Config& cfg);

}  // namespace nvr
