// Mounting a USB drive under the mount root, and unmounting it.
#include <filesystem>

#include "core/nomi.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "storage/testi.h"
#include "storage/usb.h"

namespace nvr {

namespace {

// Only a plain device path reaches the mount command: no "..", no blanks, no options.
bool dispositivo_valido(const std::string& dev) {
  if (dev.rfind("/Volumes/", 0) == 0) return true;
  if (dev.rfind("/dev/", 0) != 0 || dev.size() == 5) return false;
  for (char c : dev.substr(5)) {
    bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
              c == '/' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

}  // namespace

std::tuple<bool, std::string, std::string> monta_usb(const std::string& dev,
                                                     const std::string& uuid,
                                                     const std::string& etichetta) {
  std::optional<Unita> u = _trova_unita(dev, uuid, etichetta);
  if (!u) return {false, "Unita' non trovata (staccata?)", ""};
  if (!dispositivo_valido(u->dev)) return {false, "Dispositivo non valido", ""};

  // A drive that something else mounted is used where it is, never mounted a second time.
  if (u->montata && !u->mountpoint.empty()) {
    if (_scrivibile(u->mountpoint)) return {true, "Gia' montata", u->mountpoint};
    return {false,
            "gia' montata da un altro programma in " + u->mountpoint +
                " ma li' il server non puo' scrivere: espelli la chiavetta dal desktop e premi di "
                "nuovo \"Usa questa unita'\"",
            ""};
  }

  std::string nome =
      !u->etichetta.empty() ? u->etichetta : std::filesystem::path(u->dev).filename().string();
  std::string mp = radice_montaggi() + "/" + _nome_sicuro(nome);
  auto [creata, perche] = _mkdir(mp);
  if (!creata) return {false, "Non riesco a creare " + mp + ": " + perche, ""};

  // FAT, exFAT and NTFS have no owners of their own: the files must be given to the server's
  // user at mount time. Linux filesystems keep their owners, fixed afterwards by _dopo_mount.
  std::string fs = minuscolo(u->fs);
  UtenteApp utente = _utente_app();
  std::string proprietario =
      "uid=" + std::to_string(utente.uid) + ",gid=" + std::to_string(utente.gid) + ",umask=000";
  std::vector<std::string> comando = {"mount"};
  if (fs == "vfat" || fs == "msdos") {
    comando.insert(comando.end(), {"-o", proprietario + ",iocharset=utf8"});
  } else if (fs == "exfat" || fs == "ntfs" || fs == "ntfs3") {
    comando.insert(comando.end(), {"-o", proprietario});
  }
  comando.insert(comando.end(), {u->dev, mp});

  RisultatoComando r = _radice(comando, 30);
  if (r.codice != 0) return {false, "mount: " + _spiega_mount(detto(r, "errore")), ""};
  auto [accettata, msg] = _dopo_mount(mp, "Unita'");
  if (!accettata) return {false, msg, ""};
  return {true, "Montata", mp};
}

bool smontabile(const std::string& mountpoint) {
  return !mountpoint.empty() && _ismount(mountpoint);
}

std::pair<bool, std::string> smonta(const std::string& mountpoint) {
  if (!smontabile(mountpoint)) return {false, "Non e' un punto di montaggio"};
  RisultatoComando r = _radice({"umount", mountpoint}, 30);
  if (r.codice == 0) return {true, "Smontata"};
  return {false, "umount: " + spoglia(detto(r, "errore"))};
}

}  // namespace nvr
