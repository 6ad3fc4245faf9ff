// USB drives for tests that run as root: small filesystem images attached to real loop devices,
// and an lsblk stand-in that shows them as partitions of a removable USB disk (lsblk cannot say
// that of a loop device, nor read labels without udev).
#pragma once

#include <string>
#include <vector>

#include "testing/ambiente.h"

namespace nvr::testing {

class ImmagineLoop {
 public:
  // Makes a `mb` MB image with filesystem `fs` ("ext4" or "vfat"), label `etichetta` and
  // UUID `uuid` (ext4: a full UUID; vfat: "XXXX-XXXX" in hex), and plugs it in. Throws
  // std::runtime_error with the tool's message when mkfs or losetup fail.
  ImmagineLoop(std::string fs, std::string etichetta, std::string uuid, int mb = 8);
  // Unmounts whatever is mounted from it (lazily) and detaches the loop device.
  ~ImmagineLoop();
  ImmagineLoop(const ImmagineLoop&) = delete;
  ImmagineLoop& operator=(const ImmagineLoop&) = delete;

  const std::string& dev() const { return dev_; }  // "" while unplugged
  const std::string& uuid() const { return uuid_; }

  // Pulls the plug as a user would: the device disappears from lsblk and is detached, but
  // whatever was mounted from it stays mounted, dead, until someone unmounts it.
  void stacca();
  // Plugs it in again under a device name other than the last one.
  void ricollega();
  // Where it is mounted now, "" when it is not.
  std::string mountpoint() const;

 private:
  friend std::string script_lsblk(const std::vector<const ImmagineLoop*>&, const std::string&);
  // The file naming the device lsblk shows for this image ("" content or none: unplugged).
  std::string file_dev() const { return file_ + ".dev"; }
  void collega(const std::string& evita);
  bool nostro(const std::string& dev) const;  // still backed by this image

  CartellaTemporanea cartella_;
  std::string fs_, etichetta_, uuid_, file_, dev_, dev_vecchio_;
  long long byte_ = 0;
};

// The text of an lsblk stand-in that records its argument line into `registro` and prints one
// removable USB disk (vendor "Zuna", model "Chiavetta") whose partitions are the images that are
// plugged in, with their current devices and mount points.
std::string script_lsblk(const std::vector<const ImmagineLoop*>& immagini,
                         const std::string& registro);

}  // namespace nvr::testing
