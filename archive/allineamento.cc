#include "archive/allineamento.h"

#include <dirent.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

#include "core/db.h"
#include "core/tempo.h"
#include "storage/con_timeout.h"
#include "storage/montaggi.h"

namespace nvr {

namespace fs = std::filesystem;

namespace {

std::string testo_o_vuoto(const Json& v) { return vuoto(v) ? "" : testo_di(v); }

// Folder and name of a path, split at its last "/" the way the shell's dirname and basename
// do: "a.mp4" lies in "", "/a.mp4" in "/", and "a//b.mp4" in "a".
std::pair<std::string, std::string> cartella_e_nome(const std::string& p) {
  auto i = p.rfind('/');
  if (i == std::string::npos) return {"", p};
  std::string cartella = p.substr(0, i + 1);
  auto fine = cartella.find_last_not_of('/');
  cartella = fine == std::string::npos ? cartella : cartella.substr(0, fine + 1);
  return {cartella, p.substr(i + 1)};
}

// The names in `cartella`: none when it does not exist, absent when it cannot be read.
std::optional<std::set<std::string>> nomi_in(const std::string& cartella) {
  DIR* d = ::opendir(cartella.c_str());
  if (!d) {
    if (errno == ENOENT) return std::set<std::string>{};
    return std::nullopt;
  }
  std::set<std::string> nomi;
  errno = 0;
  while (dirent* e = ::readdir(d)) {
    nomi.insert(e->d_name);
    errno = 0;
  }
  bool letta = errno == 0;
  ::closedir(d);
  if (!letta) return std::nullopt;
  return nomi;
}

bool presente_ora(const std::string& cartella, const Json& dest) {
  if (cartella.empty()) return false;
  auto e_cartella = [&cartella] {
    auto r = _con_timeout(
        [cartella] {
          std::error_code ec;
          return fs::is_directory(cartella, ec);
        },
        3);
    return r.ok() && r.valore();
  };
  std::string tipo = testo_o_vuoto(campo(dest, "tipo"));
  if (tipo == "usb" || tipo == "rete") {
    const Json& mp = campo(dest, "mountpoint");
    std::string punto = mp.is_string() ? mp.get<std::string>() : "";
    return !punto.empty() && _ismount(punto) && _mount_vivo(dest, punto) && e_cartella();
  }
  return e_cartella();
}

}  // namespace

std::set<std::string> _mancanti(const std::vector<std::string>& percorsi) {
  std::vector<std::pair<std::string, std::vector<std::string>>> gruppi;
  std::map<std::string, std::size_t> posizione;
  for (const std::string& p : percorsi) {
    auto [cartella, nome] = cartella_e_nome(p);
    auto [it, nuova] = posizione.try_emplace(cartella, gruppi.size());
    if (nuova) gruppi.emplace_back(cartella, std::vector<std::string>{});
    gruppi[it->second].second.push_back(p);
  }

  std::set<std::string> manca;
  for (const auto& [cartella, file] : gruppi) {
    auto elenco = _con_timeout([cartella] { return nomi_in(cartella); }, 5);
    // A folder that cannot be read, or answers too slowly, says nothing about its files.
    if (!elenco.ok() || !elenco.valore()) continue;
    const std::set<std::string>& nomi = *elenco.valore();
    for (const std::string& p : file)
      if (!nomi.count(cartella_e_nome(p).second)) manca.insert(p);
  }
  return manca;
}

bool _archivio_presente(const Config& cfg, double fresco) {
  const Json& dest = cfg.destinazione;
  std::string firma = cfg.cartella + "|" + testo_o_vuoto(campo(dest, "tipo")) + "|" +
                      testo_o_vuoto(campo(dest, "mountpoint"));
  CachePresente c = _cache_presente.get();
  if (c.firma == firma && _ora() - c.ts < fresco) return c.val;
  bool val = presente_ora(cfg.cartella, dest);
  _cache_presente.set(CachePresente{_ora(), val, firma});
  return val;
}

std::vector<std::int64_t> _righe_senza_file(const Config& cfg) {
  if (!_archivio_presente(cfg)) return {};
  std::vector<std::pair<std::int64_t, std::string>> righe;
  {
    Connessione c = _db();
    c.scorri("SELECT id, file FROM nvr_registrazioni", {},
             [&](const Riga& r) { righe.emplace_back(come_intero(r[0]), come_testo(r[1])); });
  }
  std::vector<std::string> file;
  file.reserve(righe.size());
  for (const auto& r : righe) file.push_back(r.second);
  std::set<std::string> manca = _mancanti(file);
  std::vector<std::int64_t> ids;
  for (const auto& [id, f] : righe)
    if (manca.count(f)) ids.push_back(id);
  return ids;
}

int _allinea(const Config& cfg) {
  std::vector<std::int64_t> ids = _righe_senza_file(cfg);
  if (ids.empty()) return 0;
  std::vector<std::vector<Valore>> lotti;
  lotti.reserve(ids.size());
  for (std::int64_t id : ids) lotti.push_back({id});
  Connessione c = _db();
  c.esegui_molti("DELETE FROM nvr_registrazioni WHERE id=?", lotti);
  c.commit();
  return static_cast<int>(ids.size());
}

}  // namespace nvr
