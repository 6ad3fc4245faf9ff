// USB drives: listing, finding one again after it was re-plugged, mounting and unmounting.
#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/json.h"
#include "core/stato.h"
#include "storage/montaggi.h"

namespace nvr {

struct Unita {
  std::string dev;        // device path, or the mount path of a /Volumes entry
  std::string nome;       // label, else kernel name
  std::string etichetta;  // label, "" if none
  std::string uuid;
  std::string partuuid;
  std::string fs;  // filesystem type, "" if unknown
  double dimensione_gb = 0.0;
  bool montata = false;
  std::string mountpoint;
  std::string modello;   // vendor and model
  bool sistema = false;  // holds "/", "/boot" or "/boot/firmware"
  std::optional<Spazio> spazio;

  // {dev, nome, etichetta, uuid, partuuid, fs, dimensione_gb, montata, mountpoint, modello,
  //  sistema, spazio}
  Json come_json() const;
};

// The removable partitions with a usable filesystem (lsblk, 10 s), without the system's own,
// plus mounted /Volumes entries; each with its free space when mounted. Never fails: a missing
// or failing lsblk, or output that is not JSON, lists no partitions. The free space is read
// without a time limit, so a hung drive can block this call.
std::vector<Unita> unita_usb();

// The drive with this UUID (or PARTUUID), else this label, else this device path; absent when
// none matches. Empty arguments are not looked for. It reads the same list as unita_usb but
// never reads the drives' space (`spazio` stays absent, and so does the size of a /Volumes
// entry), so asking whether a drive is still there cannot hang on a dead one.
std::optional<Unita> _trova_unita(const std::string& dev = "", const std::string& uuid = "",
                                  const std::string& etichetta = "");

// The drives described by the output of "lsblk -J -b -o NAME,PATH,SIZE,TYPE,MOUNTPOINT,LABEL,
// FSTYPE,RM,TRAN,HOTPLUG,MODEL,VENDOR,UUID,PARTUUID", in its order: partitions of removable
// devices (a partition inherits removable, model and vendor from its disk) with a filesystem
// other than swap and LVM2_member, leaving out those mounted at "/", "/boot", "/boot/firmware".
std::vector<Unita> _leggi_lsblk(const Json& uscita);

// Runs lsblk (10 s) and reads its output as above; empty when lsblk is missing or fails.
std::vector<Unita> _unita_lsblk();

// lsblk's drives and the /Volumes entries, as unita_usb lists them but without reading their
// space (no `spazio`, no size for /Volumes entries), so it cannot hang on a dead drive.
std::vector<Unita> _unita_presenti();

// The volumes mounted in the folder `cartella` (a desktop's /Volumes), except "Macintosh HD",
// sorted by name. With `misura` their size is read from the filesystem, else it stays 0.
std::vector<Unita> _unita_volumi(const std::string& cartella, bool misura);

// Mounts the drive under the mount root with options that let the server's user write.
// Answers (ok, message, mount point): "Montata", "Gia' montata", or why not.
std::tuple<bool, std::string, std::string> monta_usb(const std::string& dev = "",
                                                     const std::string& uuid = "",
                                                     const std::string& etichetta = "");

// Unmounts: (true, "Smontata") or (false, why). The caller stops the recorders writing there
// first (smontabile tells whether there is anything to unmount).
std::pair<bool, std::string> smonta(const std::string& mountpoint);
bool smontabile(const std::string& mountpoint);

}  // namespace nvr
