#include "archive/pulizia.h"

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "archive/allineamento.h"
#include "archive/pulizia_piano.h"
#include "core/db.h"
#include "core/percorsi.h"
#include "core/tempo.h"
#include "archive/posizione.h"
#include "storage/con_timeout.h"
#include "storage/montaggi.h"

namespace nvr {

namespace fs = std::filesystem;

namespace {

// Free space, bounded in time: a share that hangs ends the space phase instead of the engine.
std::optional<double> misura(const std::string& cartella) {
  auto r = _con_timeout([cartella] { return _spazio(cartella); }, 5);
  if (!r.ok() || !r.valore()) return std::nullopt;
  return r.valore()->libero_gb;
}

void togli(const SegmentoIndice& s, const std::string& cartella) {
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

  std::vector<SegmentoIndice> segmenti;
  {
    Connessione c = _db();
    c.scorri("SELECT id, file, inizio FROM nvr_registrazioni ORDER BY inizio ASC", {},
             [&](const Riga& r) {
               segmenti.push_back({come_intero(r[0]), come_testo(r[1]), come_reale(r[2])});
             });
  }

  const RisolviPercorso reale = percorso_reale_o_assoluto;
  const std::string radice = radice_confronto(reale(cartella));
  std::vector<std::string> file;
  file.reserve(segmenti.size());
  for (const SegmentoIndice& s : segmenti) file.push_back(s.file);
  const std::vector<Verdetto> verdetti =
      scegli_per_eta(segmenti, mancanti_per_posizione(file), limite, radice, reale);

  std::vector<std::int64_t> da_togliere;
  for (std::size_t i = 0; i < segmenti.size(); ++i) {
    if (verdetti[i] == Verdetto::kResta) continue;
    if (verdetti[i] == Verdetto::kPerEta) togli(segmenti[i], cartella);
    da_togliere.push_back(segmenti[i].id);
  }

  FrenoSpazio freno(cfg.spazio_min_gb, misura(cartella));
  if (freno.altra()) {
    for (std::size_t i : candidati_per_spazio(segmenti, verdetti, radice, reale)) {
      if (!freno.altra()) break;
      togli(segmenti[i], cartella);
      da_togliere.push_back(segmenti[i].id);
      freno.misurato(misura(cartella));
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
