#include "tests/reliability/integrita.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "core/db.h"
#include "storage/comando.h"

namespace nvr::affidabilita {

namespace fs = std::filesystem;

std::vector<Buco> Integrita::buchi_oltre(double secondi) const {
  std::vector<Buco> oltre;
  for (const Buco& b : buchi)
    if (b.secondi() > secondi) oltre.push_back(b);
  return oltre;
}

bool Integrita::coerente() const {
  return senza_riga.empty() && senza_file.empty() && doppi.empty() && illeggibili.empty();
}

std::string Integrita::descrizione() const {
  std::ostringstream s;
  s << file << " file finiti, " << righe << " righe, " << in_corso.size() << " in corso\n";
  for (const auto& [titolo, v] : {std::pair{"senza riga", &senza_riga},
                                  {"senza file", &senza_file},
                                  {"doppi", &doppi},
                                  {"illeggibili", &illeggibili}})
    for (const auto& f : *v) s << titolo << ": " << f << "\n";
  for (const Buco& b : buchi)
    s << "buco telecamera " << b.cam_id << ": " << std::fixed << b.secondi() << " s da " << b.da
      << "\n";
  return s.str();
}

bool riproducibile(const std::string& f) {
  auto r = _comando(
      {"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", f}, 30);
  return r.codice == 0 && std::atof(r.out.c_str()) > 0;
}

Integrita verifica_integrita(const std::string& db_file, const std::string& archivio,
                             bool ffprobe) {
  Integrita esito;
  std::map<std::string, int> indicizzati;
  std::map<std::int64_t, std::vector<std::pair<double, double>>> per_camera;
  {
    Connessione c(db_file);
    for (const auto& r : c.righe("SELECT cam_id, inizio, fine, file FROM nvr_registrazioni")) {
      ++esito.righe;
      ++indicizzati[fs::path(come_testo(r[3])).lexically_normal().string()];
      per_camera[come_intero(r[0])].emplace_back(come_reale(r[1]), come_reale(r[2]));
    }
  }
  std::set<std::string> su_disco;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(archivio, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (!it->is_regular_file() || it->path().extension() != ".mp4") continue;
    const std::string p = it->path().lexically_normal().string();
    if (it->path().parent_path().filename() == "in_corso") {
      esito.in_corso.push_back(p);
      continue;
    }
    su_disco.insert(p);
    ++esito.file;
    if (!indicizzati.count(p)) esito.senza_riga.push_back(p);
    if (ffprobe && !riproducibile(p)) esito.illeggibili.push_back(p);
  }
  for (const auto& [f, n] : indicizzati) {
    if (!su_disco.count(f)) esito.senza_file.push_back(f);
    if (n > 1) esito.doppi.push_back(f);
  }
  for (auto& [cam, tratti] : per_camera) {
    std::sort(tratti.begin(), tratti.end());
    for (std::size_t i = 1; i < tratti.size(); ++i)
      if (tratti[i].first - tratti[i - 1].second > 1.0)
        esito.buchi.push_back({cam, tratti[i - 1].second, tratti[i].first});
  }
  return esito;
}

}  // namespace nvr::affidabilita
