// The drive list as the storage page shows it: lsblk's partitions, the desktop's /Volumes, and
// the free space of each mounted one.
#include <algorithm>
#include <filesystem>

#include "storage/montaggi.h"
#include "storage/usb.h"

namespace nvr {

std::vector<Unita> _unita_volumi(const std::string& cartella, bool misura) {
  namespace fs = std::filesystem;
  std::vector<Unita> fuori;
  std::error_code ec;
  if (!fs::is_directory(cartella, ec)) return fuori;
  std::vector<std::string> nomi;
  for (fs::directory_iterator it(cartella, ec), fine; !ec && it != fine; it.increment(ec))
    nomi.push_back(it->path().filename().string());
  std::sort(nomi.begin(), nomi.end());
  for (const std::string& nome : nomi) {
    std::string p = (fs::path(cartella) / nome).string();
    if (nome == "Macintosh HD" || !_ismount(p)) continue;  // the Mac's own disk is not a drive
    Unita u;
    u.dev = p;
    u.mountpoint = p;
    u.nome = nome;
    u.etichetta = nome;
    u.montata = true;
    u.modello = "Volume";
    if (misura) {
      std::optional<Spazio> sp = _spazio(p);
      u.dimensione_gb = sp ? sp->totale_gb : 0.0;
    }
    fuori.push_back(std::move(u));
  }
  return fuori;
}

std::vector<Unita> _unita_presenti() {
  std::vector<Unita> elenco = _unita_lsblk();
  std::vector<Unita> volumi = _unita_volumi("/Volumes", false);
  elenco.insert(elenco.end(), volumi.begin(), volumi.end());
  return elenco;
}

std::vector<Unita> unita_usb() {
  std::vector<Unita> elenco = _unita_lsblk();
  std::vector<Unita> volumi = _unita_volumi("/Volumes", true);
  elenco.insert(elenco.end(), volumi.begin(), volumi.end());
  for (Unita& u : elenco)
    if (u.montata && !u.mountpoint.empty()) u.spazio = _spazio(u.mountpoint);
  return elenco;
}

}  // namespace nvr
