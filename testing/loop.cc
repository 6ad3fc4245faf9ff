#include "testing/loop.h"

#include <sys/mount.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "storage/comando.h"
#include "testing/stand_in.h"

namespace nvr::testing {

namespace {

void esegui(const std::vector<std::string>& args) {
  RisultatoComando r = _comando(args, 60);
  if (r.codice != 0) {
    std::string riga;
    for (const std::string& a : args) riga += a + " ";
    throw std::runtime_error(riga + "-> " + std::to_string(r.codice) + ": " + r.err + r.out);
  }
}

std::string senza_a_capo(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

// The mount points of `dev`, a pulled drive's dead ones included.
std::vector<std::string> montaggi_di(const std::string& dev) {
  std::vector<std::string> fuori;
  std::istringstream in(
      dev.empty() ? "" : _comando({"findmnt", "-n", "-r", "-o", "TARGET", "-S", dev}, 20).out);
  for (std::string punto; std::getline(in, punto);) fuori.push_back(punto);
  return fuori;
}

}  // namespace

ImmagineLoop::ImmagineLoop(std::string fs, std::string etichetta, std::string uuid, int mb)
    : fs_(std::move(fs)), etichetta_(std::move(etichetta)), uuid_(std::move(uuid)) {
  file_ = cartella_ / "disco.img";
  byte_ = static_cast<long long>(mb) * 1024 * 1024;
  esegui({"truncate", "-s", std::to_string(byte_), file_});
  if (fs_ == "ext4") {
    esegui({"mkfs.ext4", "-q", "-F", "-L", etichetta_, "-U", uuid_, file_});
  } else if (fs_ == "vfat") {
    std::string id = uuid_.substr(0, 4) + uuid_.substr(5, 4);
    esegui({"mkfs.vfat", "-n", etichetta_, "-i", id, file_});
  } else {
    throw std::runtime_error("filesystem di prova sconosciuto: " + fs_);
  }
  collega("");
}

ImmagineLoop::~ImmagineLoop() {
  for (const std::string& d : {dev_, dev_vecchio_}) {
    if (!nostro(d)) continue;  // a device number given back may already serve another image
    for (const std::string& mp : montaggi_di(d)) ::umount2(mp.c_str(), MNT_DETACH);
    (void)_comando({"losetup", "-d", d}, 20);
  }
}

bool ImmagineLoop::nostro(const std::string& dev) const {
  if (dev.rfind("/dev/", 0) != 0) return false;
  std::string dietro =
      senza_a_capo(leggi_file("/sys/block/" + dev.substr(5) + "/loop/backing_file"));
  std::error_code ec;
  return !dietro.empty() && std::filesystem::equivalent(dietro, file_, ec);
}

void ImmagineLoop::collega(const std::string& evita) {
  RisultatoComando r = _comando({"losetup", "--find", "--show", file_}, 20);
  if (r.codice != 0) throw std::runtime_error("losetup: " + r.err);
  std::string dev = senza_a_capo(r.out);
  if (dev == evita) {  // the lowest free device was the old one: take the next instead
    RisultatoComando altro = _comando({"losetup", "--find", "--show", file_}, 20);
    (void)_comando({"losetup", "-d", dev}, 20);
    if (altro.codice != 0) throw std::runtime_error("losetup: " + altro.err);
    dev = senza_a_capo(altro.out);
  }
  dev_ = dev;
  scrivi_file(file_dev(), dev_);
}

void ImmagineLoop::stacca() {
  scrivi_file(file_dev(), "");
  // A mounted loop device only goes once its last mount is gone (autoclear), as a pulled
  // drive's block device lingers while the kernel still holds its filesystem.
  (void)_comando({"losetup", "-d", dev_}, 20);
  dev_vecchio_ = dev_;
  dev_.clear();
}

void ImmagineLoop::ricollega() { collega(dev_vecchio_); }

std::string ImmagineLoop::mountpoint() const {
  std::vector<std::string> m = montaggi_di(dev_);
  return m.empty() ? "" : m.front();
}

std::string script_lsblk(const std::vector<const ImmagineLoop*>& immagini,
                         const std::string& registro) {
  std::string s = "#!/bin/sh\nprintf '%s\\n' \"$*\" >> " + tra_apici(registro) + R"SH(
parti=
parte() {  # device-file size fstype label uuid
  dev=$(cat "$1" 2>/dev/null)
  [ -n "$dev" ] || return 0
  mp=$(findmnt -n -f -o TARGET --source "$dev")
  if [ -n "$mp" ]; then mp="\"$mp\""; else mp=null; fi
  [ -n "$parti" ] && parti="$parti,"
  parti="$parti{\"name\":\"${dev#/dev/}\",\"path\":\"$dev\",\"size\":$2,\"type\":\"part\",\"mountpoint\":$mp,\"label\":\"$4\",\"fstype\":\"$3\",\"rm\":false,\"tran\":null,\"hotplug\":false,\"model\":null,\"vendor\":null,\"uuid\":\"$5\",\"partuuid\":null}"
}
)SH";
  long long totale = 0;
  for (const ImmagineLoop* i : immagini) {
    s += "parte " + tra_apici(i->file_dev()) + " " + std::to_string(i->byte_) + " " +
         tra_apici(i->fs_) + " " + tra_apici(i->etichetta_) + " " + tra_apici(i->uuid_) + "\n";
    totale += i->byte_;
  }
  s +=
      R"SH(printf '{"blockdevices":[{"name":"sdz","path":"/dev/sdz","size":)SH" +
      std::to_string(totale) +
      R"SH(,"type":"disk","mountpoint":null,"label":null,"fstype":null,"rm":true,"tran":"usb","hotplug":true,"model":"Chiavetta","vendor":"Zuna","uuid":null,"partuuid":null,"children":[%s]}]}\n' "$parti"
)SH";
  return s;
}

}  // namespace nvr::testing
