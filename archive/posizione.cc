#include "archive/posizione.h"

#include <cctype>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>

#include "core/log.h"
#include "core/percorsi.h"
#include "core/testi.h"
#include "core/nomi.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "storage/cartelle_fs.h"

namespace nvr {

namespace {
std::mutex non_spostabili_m;
std::set<std::string> _non_spostabili;  // guarded by non_spostabili_m: segments whose move failed
}  // namespace

bool non_spostabile(const std::string& p) {
  std::lock_guard l(non_spostabili_m);
  return _non_spostabili.count(p) > 0;
}

void segna_non_spostabile(const std::string& p, bool si) {
  std::lock_guard l(non_spostabili_m);
  if (si)
    _non_spostabili.insert(p);
  else
    _non_spostabili.erase(p);
}

void azzera_posizione_per_test() {
  std::lock_guard l(non_spostabili_m);
  _non_spostabili.clear();
}

namespace fs = std::filesystem;

std::string _nome_cartella_cam(const Camera& cam, const std::vector<Camera>& cams) {
  std::string base = _nome_sicuro(cam.nome);
  if (base.empty()) base = "telecamera";
  // A name with nothing usable in it would put every such camera in one folder.
  if (base == "unita") return "telecamera_" + std::to_string(cam.id);
  // Folders on vfat and exFAT drives ignore case, so Garage and garage would share one.
  const std::string chiave = minuscolo(base);
  for (const Camera& altra : cams) {
    if (altra.id == cam.id) continue;
    if (minuscolo(_nome_sicuro(altra.nome)) == chiave) return base + "_" + std::to_string(cam.id);
  }
  return base;
}

std::string _cartella_camera(const Config& cfg, const Camera& cam,
                             const std::vector<Camera>& cams) {
  return (fs::path(cfg.cartella) / _nome_cartella_cam(cam, cams)).string();
}

std::string _cartella_in_corso(const Config& cfg, const Camera& cam,
                               const std::vector<Camera>& cams) {
  return (fs::path(_cartella_camera(cfg, cam, cams)) / "in_corso").string();
}

std::pair<std::string, std::string> _giorno_di(double ts) {
  std::tm t = scomponi(ts, _fuso());
  return {formatta(t, "%Y-%m-%d"), formatta(t, "%H-%M-%S")};
}

std::string _destinazione_spezzone(const std::string& cart_cam, double inizio) {
  auto [giorno, ora] = _giorno_di(inizio);
  fs::path cart = fs::path(cart_cam) / giorno;
  fs::path dest = cart / (ora + ".mp4");
  std::error_code ec;
  for (int n = 1; fs::exists(dest, ec); ++n) dest = cart / (ora + "_" + std::to_string(n) + ".mp4");
  return dest.string();
}

std::optional<std::string> _sposta_spezzone(const std::string& sorgente,
                                            const std::string& cart_cam, double inizio) {
  const fs::path dest = _destinazione_spezzone(cart_cam, inizio);
  const fs::path cart = dest.parent_path();
  std::error_code ec;
  if (!fs::is_directory(cart, ec)) {
    ec.clear();
    fs::create_directories(cart, ec);
    // The day folder may be made by root on a drive the server's user cannot write yet.
    if (!ec) (void)_intesta(cart.string());
  }
  if (!ec) fs::rename(sorgente, dest, ec);
  if (!ec) return dest.string();

  if (ec == std::errc::no_such_file_or_directory) {
    // Either the source went away (deleted meanwhile) or the archive under it did.
    std::error_code ec2;
    if (fs::exists(sorgente, ec2)) return sorgente;
    return std::nullopt;
  }
  if (!non_spostabile(sorgente)) {
    _log("spezzone " + fs::path(sorgente).filename().string() + " non spostato in " +
         cart.string() + ": " + ec.message() + " (resta dov'e', in elenco lo stesso)");
  }
  return sorgente;
}

void _togli_cartelle_vuote(const std::string& percorso, const std::string& radice) {
  const std::string r = percorso_reale_o_vuoto(radice);
  fs::path p = percorso_reale_o_vuoto(fs::path(percorso).parent_path());
  if (r.empty() || p.empty()) return;
  const std::string prefisso = r + "/";
  std::error_code ec;
  while (p.string().starts_with(prefisso)) {
    if (p.filename() == "in_corso") return;  // the recorder may be writing into it right now
    if (!fs::is_empty(p, ec) || ec) return;
    if (!fs::remove(p, ec) || ec) return;
    p = p.parent_path();
  }
}

}  // namespace nvr
