#include "archive/pulizia.h"

#include <unistd.h>

#include <cstdint>
#include <deque>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "archive/allineamento.h"
#include "core/db.h"
#include "core/tempo.h"
#include "archive/posizione.h"
#include "storage/con_timeout.h"
#include "storage/montaggi.h"

namespace nvr {

namespace fs = std::filesystem;

namespace {

struct Segmento {
  std::int64_t id = 0;
  std::string file;
  double inizio = 0.0;
};

// The path with its links resolved as far as it exists, as an absolute path; the path itself
// when even that fails.
std::string reale(const std::string& p) {
  std::error_code ec;
  fs::path a = fs::absolute(p, ec);
  if (ec) return p;
  fs::path r = fs::weakly_canonical(a, ec);
  return ec ? a.string() : r.string();
}

// Free space, bounded in time: a share that hangs ends the space phase instead of the engine.
std::optional<Spazio> misura(const std::string& cartella) {
  auto r = _con_timeout([cartella] { return _spazio(cartella); }, 5);
  return r.ok() ? r.valore() : std::nullopt;
}

void togli(const Segmento& s, const std::string& cartella) {
  ::unlink(s.file.c_str());  // a file that cannot go still leaves the index
  _togli_cartelle_vuote(s.file, cartella);
}

}  // namespace

void _pulizia(const Config& cfg, bool /*forza: every run already does both phases in full*/) {
  int giorni = cfg.giorni != 0 ? cfg.giorni : 14;
  _pulizia_prima_di(cfg, _ora() - giorni * 86400.0);
}

void _pulizia_prima_di(const Config& cfg, double limite) {
  const std::string& cartella = cfg.cartella;
  // An unplugged drive or a dead share must never look like an archive that lost its files.
  if (cartella.empty() || !_archivio_presente(cfg)) return;

  std::vector<Segmento> segmenti;
  {
    Connessione c = _db();
    c.scorri("SELECT id, file, inizio FROM nvr_registrazioni ORDER BY inizio ASC", {},
             [&](const Riga& r) {
               segmenti.push_back({come_intero(r[0]), come_testo(r[1]), come_reale(r[2])});
             });
  }

  std::string radice = reale(cartella);
  while (!radice.empty() && radice.back() == '/') radice.pop_back();
  radice += "/";
  // A link inside the archive is the archive's own even when it points elsewhere, so the path as
  // written counts too; but only once its ".." are resolved, or "ROOT/../x" would count as inside.
  auto dentro = [&radice](const std::string& p) { return reale(p).starts_with(radice); };
  auto scritto_dentro = [&radice](const std::string& p) {
    return fs::path(p).lexically_normal().string().starts_with(radice);
  };

  std::vector<std::string> file;
  file.reserve(segmenti.size());
  for (const Segmento& s : segmenti) file.push_back(s.file);
  const std::vector<bool> manca = mancanti_per_posizione(file);

  std::vector<std::int64_t> da_togliere;
  std::set<std::int64_t> tolti;
  auto segna = [&](std::int64_t id) {
    da_togliere.push_back(id);
    tolti.insert(id);
  };

  for (std::size_t i = 0; i < segmenti.size(); ++i) {
    const Segmento& s = segmenti[i];
    if (manca[i]) {
      segna(s.id);
      continue;
    }
    if (!scritto_dentro(s.file) && !dentro(s.file)) continue;
    if (s.inizio < limite) {
      togli(s, cartella);
      segna(s.id);
    }
  }

  // Oldest first until the floor is reached. The space is measured again after each deletion;
  // three deletions in a row that free nothing measurable mean the space is held by something
  // else (or reported late), and going on would only empty the archive.
  double min_gb = cfg.spazio_min_gb;
  std::optional<Spazio> sp = misura(cartella);
  if (sp && sp->libero_gb < min_gb) {
    std::deque<const Segmento*> candidati;
    for (const Segmento& s : segmenti)
      if (!tolti.count(s.id) && dentro(s.file)) candidati.push_back(&s);
    int vane = 0;
    while (sp && sp->libero_gb < min_gb && !candidati.empty() && vane < 3) {
      const Segmento& s = *candidati.front();
      candidati.pop_front();
      double prima = sp->libero_gb;
      togli(s, cartella);
      segna(s.id);
      sp = misura(cartella);
      if (sp && sp->libero_gb <= prima)
        ++vane;
      else
        vane = 0;
    }
  }

  Connessione c = _db();
  if (!da_togliere.empty()) {
    std::vector<std::vector<Valore>> lotti;
    lotti.reserve(da_togliere.size());
    for (std::int64_t id : da_togliere) lotti.push_back({id});
    c.esegui_molti("DELETE FROM nvr_registrazioni WHERE id=?", lotti);
  }
  c.esegui("DELETE FROM nvr_eventi WHERE ts < ?", {limite});
  c.commit();
}

}  // namespace nvr
