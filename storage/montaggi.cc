#include "storage/montaggi.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>

#include "core/condiviso.h"
#include "core/percorsi.h"
#include "core/tempo.h"
#include "core/testi.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "storage/con_timeout.h"

namespace nvr {

namespace {
// The last folder whose space was read, with its answer and time (replaced whole).
struct CacheSpazio {
  std::string cartella;
  std::optional<Spazio> spazio;  // absent when it could not be read
  double ts = 0.0;
};
Condiviso<CacheSpazio> _cache_spazio;
}  // namespace

Json Spazio::come_json() const {
  return Json{{"totale_gb", totale_gb}, {"libero_gb", libero_gb}, {"usato_pct", usato_pct}};
}

void azzera_spazio_per_test() { _cache_spazio.set({}); }

namespace fs = std::filesystem;

namespace {

std::string maiuscolo(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

bool contiene_uno(const std::string& testo, std::initializer_list<std::string_view> parole) {
  return std::any_of(parole.begin(), parole.end(),
                     [&](std::string_view p) { return testo.find(p) != std::string::npos; });
}

// The kernel says whether a path is the root of a mount, bind mounts included. Kernels that do
// not answer that get the classic test: another device than the parent's, or the root itself.
// A symbolic link is never a mount point; an unreadable path is not one either.
bool e_punto_di_montaggio(const std::string& p) {
  struct statx sx {};
  if (::statx(AT_FDCWD, p.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_INO, &sx) != 0)
    return false;
  if (S_ISLNK(sx.stx_mode)) return false;
  if (sx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT)
    return (sx.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  struct statx su {};
  if (::statx(AT_FDCWD, (p + "/..").c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO, &su) != 0)
    return false;
  if (sx.stx_dev_major != su.stx_dev_major || sx.stx_dev_minor != su.stx_dev_minor) return true;
  return sx.stx_ino == su.stx_ino;
}

// Rounds to one decimal as the exact binary value dictates: 0.35, stored just below, gives 0.3;
// an exact half such as 0.25 goes to the even 0.2. Scaling by ten first would add its own error.
double una_cifra(double x) {
  char testo[64];
  std::snprintf(testo, sizeof testo, "%.1f", x);
  return std::strtod(testo, nullptr);
}

// The first non-empty name quoted after "filesystem type " (the case of the words matters),
// lower-cased; "" when there is none.
std::string tipo_citato(const std::string& m) {
  static constexpr std::string_view kPrima = "filesystem type '";
  for (auto i = m.find(kPrima); i != std::string::npos; i = m.find(kPrima, i + 1)) {
    auto inizio = i + kPrima.size();
    auto fine = m.find('\'', inizio);
    if (fine == std::string::npos) return "";
    if (fine > inizio) return minuscolo(m.substr(inizio, fine - inizio));
  }
  return "";
}

// Explains a mount failure that names a filesystem the system cannot read.
std::string spiega_filesystem(const std::string& m) {
  std::string nome = tipo_citato(m);
  if (nome == "apfs" || nome == "hfsplus" || nome == "hfs")
    return "  (la chiavetta e' formattata dal Mac in " + maiuscolo(nome) +
           ": Linux non la legge. Formattala in exFAT: sul Mac Utility Disco > Inizializza > "
           "formato exFAT, schema Master Boot Record; poi ricollegala e premi di nuovo \"Usa "
           "questa unita'\")";
  if (nome == "exfat" || nome == "ntfs") {
    std::string pacchetto = nome == "exfat" ? "exfat-fuse exfatprogs" : "ntfs-3g";
    return "  (manca il supporto " + nome + " sul server: esegui  sudo apt-get install -y " +
           pacchetto + "  e riprova)";
  }
  return "  (il sistema non sa leggere questo filesystem: formatta la chiavetta in exFAT o ext4)";
}

}  // namespace

bool _ismount(const std::string& p) {
  if (p.empty()) return false;
  auto r = _con_timeout([p] { return e_punto_di_montaggio(p); }, 5);
  return r.ok() && r.valore();
}

std::string _radice_montaggio(const std::string& p) {
  auto r = _con_timeout(
      [p] {
        // Resolved as far as the path exists, like a non-strict realpath: a folder not created
        // yet still belongs to the mount that will hold it.
        fs::path percorso = percorso_reale_o_vuoto(p);
        while (!e_punto_di_montaggio(percorso.string())) {
          fs::path su = percorso.parent_path();
          if (su == percorso) break;
          percorso = su;
        }
        return percorso.string();
      },
      8);
  return r.ok() ? r.valore() : "";
}

std::string _spiega_mount(const std::string& err) {
  std::string m = spoglia(err);
  std::string low = minuscolo(m);
  if (contiene_uno(low, {"error(13)", "errno 13"}))
    return m + "  (utente o password della cartella condivisa non accettati)";
  if (contiene_uno(low, {"error(2)", "errno 2"}))
    return m + "  (cartella condivisa non trovata sul server: controlla il nome)";
  if (contiene_uno(low, {"error(112)", "host is down", "no route", "error(113)", "connection",
                         "error(110)"}))
    return m + "  (server non raggiungibile: controlla indirizzo e rete)";
  if (contiene_uno(low, {"only root", "solo root", "permission denied", "permesso negato",
                         "not permitted", "non consentit"}))
    return m +
           "  (il server non ha i permessi per montare: deve girare come root, o in sudo senza "
           "password)";
  if (contiene_uno(low,
                   {"unknown filesystem", "tipo di filesystem", "bad superblock", "wrong fs type"}))
    return m + spiega_filesystem(m);
  return m;
}

std::optional<Spazio> _spazio(const std::string& cartella) {
  struct statvfs st {};
  if (::statvfs(cartella.c_str(), &st) != 0) return std::nullopt;
  // Free means what an unprivileged writer can still use, not the blocks kept for root.
  double totale = static_cast<double>(st.f_blocks) * static_cast<double>(st.f_frsize);
  double libero = static_cast<double>(st.f_bavail) * static_cast<double>(st.f_frsize);
  Spazio s;
  s.totale_gb = una_cifra(totale / 1e9);
  s.libero_gb = una_cifra(libero / 1e9);
  // nearbyint rounds in the default mode, which sends an exact half to the even neighbour.
  s.usato_pct =
      totale > 0 ? static_cast<int>(std::nearbyint(100.0 * (totale - libero) / totale)) : 0;
  return s;
}

std::optional<Spazio> _spazio_sicuro(const std::string& cartella, double fresco) {
  CacheSpazio c = _cache_spazio.get();
  double ora = _ora();
  if (c.cartella == cartella && ora - c.ts < fresco) return c.spazio;
  auto r = _con_timeout(
      [cartella]() -> std::optional<Spazio> {
        std::error_code ec;
        if (!fs::is_directory(cartella, ec)) return std::nullopt;
        return _spazio(cartella);
      },
      5);
  std::optional<Spazio> sp = r.ok() ? r.valore() : std::nullopt;
  _cache_spazio.set(CacheSpazio{cartella, sp, _ora()});
  return sp;
}

std::pair<bool, std::string> _dopo_mount(const std::string& mp, const std::string& nome) {
  if (_sola_lettura(mp)) {
    (void)_radice({"umount", mp}, 20);
    return {false, nome +
                       " montata in sola lettura: se e' una chiavetta NTFS non e' stata espulsa "
                       "bene da Windows (collegala a Windows, \"Rimuovi in sicurezza\"), oppure "
                       "formattala in exFAT o ext4"};
  }
  if (_intesta(mp)) return {true, ""};
  (void)_radice({"umount", mp}, 20);
  return {false, nome + " montata ma non scrivibile dall'utente " + _utente_app().nome +
                     " con cui gira il server: controlla i permessi (sul NAS: utente con diritto "
                     "di scrittura; NFS: no_root_squash)"};
}

}  // namespace nvr
