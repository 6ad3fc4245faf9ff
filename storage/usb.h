// USB drives: listing, finding one again after it was re-plugged, mounting and unmounting.
#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/json.h"
#include "core/stato.h"

namespace nvr {

struct Unita {
  std::string dev;        // device path, or the mount path of a /Volumes entry
  std::string nome;       // label, else kernel name
  std::string etichetta;  // label, "" if none
  std::string uuid;
  std::string partuuid;
  std::string fs;         // filesystem type, "" if unknown
  double dimensione_gb = 0.0;
  bool montata = false;
  std::string mountpoint;
  std::string modello;    // vendor and model
  bool sistema = false;   // holds "/", "/boot" or "/boot/firmware"
  std::optional<Spazio> spazio;

  // {dev, nome, etichetta, uuid, partuuid, fs, dimensione_gb, montata, mountpoint, modello,
  //  sistema, spazio}
  Json come_json() const;
};

// The removable partitions with a usable filesystem (lsblk, 10 s), without the system's own,
// plus mounted /Volumes entries; each with its free space when mounted.
std::vector<Unita> unita_usb();

// The drive with this UUID (or PARTUUID), else this label, else this device path.
std::optional<Unita> _trova_unita(const std::string& dev = "", const std::string& uuid = "",
                                  const std::string& etichetta = "");

// Mounts the drive under the mount root with options that let the server's user write.
// Answers (ok, message, mount point): "Montata", "Gia' montata", or why not.
std::tuple<bool, std::string, std::string> monta_usb(const std::string& dev = "",
                                                     const std::string& uuid = "",
                                                     const std::string& etichetta = "");

// Stops every recorder, then unmounts: (true, "Smontata") or (false, why).
std::pair<bool, std::string> smonta(const std::string& mountpoint);

}  // namespace nvr
