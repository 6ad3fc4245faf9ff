// Which folders may hold the archive, and the folder browser of the storage page.
#include "storage/archivio.h"

#include <algorithm>
#include <filesystem>

#include "core/nomi.h"
#include "core/percorsi.h"
#include "storage/cartelle_fs.h"
#include "storage/con_timeout.h"
#include "storage/usb.h"

namespace nvr {

namespace {

namespace fs = std::filesystem;

// The real path of `p`, resolved as far as it exists, so that a folder still to be created is
// judged by where its parent really is; "" when it cannot be resolved within 5 s.
std::string reale(const std::string& p) {
  if (p.empty()) return "";
  Esito<std::string> r = _con_timeout([p] { return percorso_reale_o_vuoto(p); }, 5);
  return r.ok() ? r.valore() : "";
}

bool nascosta(const std::string& nome) {
  return nome.empty() || nome[0] == '.' || nome == "System Volume Information" ||
         nome == "$RECYCLE.BIN" || nome == "lost+found";
}

bool cartella_esistente(const std::string& p) {
  Esito<bool> r = _con_timeout(
      [p] {
        std::error_code ec;
        return fs::is_directory(p, ec);
      },
      5);
  return r.ok() && r.valore();
}

}  // namespace

bool _dentro(const std::string& p, const std::string& radice) { return dentro_cartella(p, radice); }

std::vector<std::string> radici_permesse_fisse() {
  return {radice_montaggi(), "/media", "/mnt", "/srv", "/home", "/Volumes"};
}

bool _dentro_radici_permesse(const std::string& p) {
  // The system calls read a path up to its first NUL byte: such a text would be judged, listed
  // and answered as a folder other than the one it names.
  if (p.find('\0') != std::string::npos) return false;
  std::string vero = reale(p);
  if (vero.empty()) return false;
  for (const std::string& r : radici_permesse_fisse())
    if (_dentro(vero, r)) return true;

  // The folder already chosen stays allowed, wherever it is, and so does every mounted drive.
  std::string cartella = leggi_config().cartella;
  if (!cartella.empty()) {
    std::string r = reale(cartella);
    if (!r.empty() && _dentro(vero, r)) return true;
  }
  for (const Unita& u : _unita_presenti()) {
    if (u.mountpoint.empty()) continue;
    std::string r = reale(u.mountpoint);
    if (!r.empty() && _dentro(vero, r)) return true;
  }
  return false;
}

std::optional<std::vector<VoceCartella>> cartelle(const std::string& base) {
  if (base.empty() || !_dentro_radici_permesse(base)) return std::nullopt;
  // The folder may sit on a share that stopped answering: the page gets no list, not a hang.
  auto r = _con_timeout(
      [base]() -> std::optional<std::vector<VoceCartella>> {
        std::error_code ec;
        if (!fs::is_directory(base, ec)) return std::nullopt;
        std::vector<std::string> nomi;
        for (fs::directory_iterator it(base, ec), fine; !ec && it != fine; it.increment(ec))
          nomi.push_back(it->path().filename().string());
        if (ec) return std::nullopt;
        std::sort(nomi.begin(), nomi.end());
        std::vector<VoceCartella> voci;
        for (const std::string& nome : nomi) {
          if (nascosta(nome)) continue;
          std::string percorso = (fs::path(base) / nome).string();
          std::error_code e;
          if (fs::is_directory(percorso, e)) voci.push_back({nome, percorso});
        }
        return voci;
      },
      10);
  if (!r.ok()) return std::nullopt;
  return r.valore();
}

std::tuple<bool, std::string, std::string> crea_cartella(const std::string& base,
                                                         const std::string& nome) {
  // The name is made safe first, so "../x" or "a/b" can only ever create one folder in base.
  std::string n = _nome_sicuro(nome).substr(0, 60);
  if (n.empty() || !cartella_esistente(base) || !_dentro_radici_permesse(base))
    return {false, "Cartella di partenza non valida", ""};
  std::string p = (fs::path(base) / n).string();
  auto [ok, msg] = _mkdir(p);
  if (!ok) return {false, "Non riesco a creare la cartella: " + msg, ""};
  (void)_intesta(p);
  return {true, "Creata", p};
}

}  // namespace nvr
