#include "archive/pulizia.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/allineamento.h"
#include "archive/posizione.h"
#include "archive/pulizia_piano.h"
#include "archive/senza_file.h"
#include "archive/sommari.h"
#include "core/db.h"
#include "core/percorsi.h"
#include "core/tempo.h"
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

namespace {

// The rows whose start reads (as come_reale does) before `limite`, through the (cam_id, inizio)
// index one camera at a time: numbers below the cut-off, and the starts that are no numbers
// (missing, or texts), whose reading is decided here. Order as the database gives it.
std::vector<SegmentoIndice> iniziate_prima(Connessione& c, double limite) {
  std::vector<SegmentoIndice> fuori;
  auto leggi = [&](const std::string& camera, std::vector<Valore> chiave) {
    for (const char* inizio : {"inizio < ?", "inizio IS NULL", "inizio >= ''"}) {
      std::vector<Valore> p = chiave;
      if (std::string_view(inizio) == "inizio < ?") p.push_back(limite);
      c.scorri("SELECT id, file, inizio FROM nvr_registrazioni WHERE " + camera + " AND " + inizio,
               p, [&](const Riga& r) {
                 const double t = come_reale(r[2]);
                 if (t < limite) fuori.push_back({come_intero(r[0]), come_testo(r[1]), t});
               });
    }
  };
  std::vector<Riga> id = c.righe("SELECT MIN(cam_id) FROM nvr_registrazioni");
  while (!nullo(id.at(0).at(0))) {
    leggi("cam_id = ?", {id[0][0]});
    id = c.righe("SELECT MIN(cam_id) FROM nvr_registrazioni WHERE cam_id > ?", {id[0][0]});
  }
  leggi("cam_id IS NULL", {});
  return fuori;
}

// Every row, oldest first: what the space phase chooses from.
std::vector<SegmentoIndice> tutte_per_inizio(Connessione& c) {
  std::vector<SegmentoIndice> segmenti;
  c.scorri("SELECT id, file, inizio FROM nvr_registrazioni ORDER BY inizio ASC", {},
           [&](const Riga& r) {
             segmenti.push_back({come_intero(r[0]), come_testo(r[1]), come_reale(r[2])});
           });
  return segmenti;
}

void scrivi(const std::vector<std::int64_t>& da_togliere, double limite) {
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

// The space phase: the oldest candidates go, one at a time, until the free space is back above
// the floor (or the brake gives up); their ids join `da_togliere`.
void libera_spazio(FrenoSpazio& freno, const std::vector<SegmentoIndice>& segmenti,
                   const std::vector<Verdetto>& verdetti, const std::string& radice,
                   const RisolviPercorso& reale, const std::string& cartella,
                   std::vector<std::int64_t>& da_togliere) {
  for (std::size_t i : candidati_per_spazio(segmenti, verdetti, radice, reale)) {
    if (!freno.altra()) break;
    togli(segmenti[i], cartella);
    da_togliere.push_back(segmenti[i].id);
    freno.misurato(misura(cartella));
  }
}

// The same run as below from every row at once, for an index whose per-folder counts are not
// built yet.
void pulizia_da_tutte(const Config& cfg, double limite, const std::string& radice,
                      const RisolviPercorso& reale) {
  const std::string& cartella = cfg.cartella;
  std::vector<SegmentoIndice> segmenti;
  {
    Connessione c = _db();
    segmenti = tutte_per_inizio(c);
  }
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
  if (freno.altra()) libera_spazio(freno, segmenti, verdetti, radice, reale, cartella, da_togliere);
  scrivi(da_togliere, limite);
}

}  // namespace

void _pulizia_prima_di(const Config& cfg, double limite) {
  const std::string& cartella = cfg.cartella;
  // An unplugged drive or a dead share must never look like an archive that lost its files.
  if (cartella.empty() || !_archivio_presente(cfg)) return;
  const RisolviPercorso reale = percorso_reale_o_assoluto;
  const std::string radice = radice_confronto(reale(cartella));

  // Over millions of rows only three sets matter: the rows without a file (found folder by
  // folder), those started before the cut-off (from the index), and, only while space is short,
  // every row oldest first.
  std::optional<SenzaFile> senza = senza_file_per_cartelle(Servono::kId, 3);
  if (!senza) {
    pulizia_da_tutte(cfg, limite, radice, reale);
    ripiega_sommari(_fuso());
    return;
  }
  std::vector<SegmentoIndice> vecchie;
  {
    Connessione c = _db();
    vecchie = iniziate_prima(c, limite);
  }
  std::vector<std::int64_t> da_togliere = senza->id;  // ascending
  auto senza_file = [&](std::int64_t id) {
    return std::binary_search(senza->id.begin(), senza->id.end(), id);
  };
  for (const SegmentoIndice& s : vecchie) {
    if (senza_file(s.id) || !dentro_archivio_per_eta(s.file, radice, reale)) continue;
    togli(s, cartella);
    da_togliere.push_back(s.id);
  }

  FrenoSpazio freno(cfg.spazio_min_gb, misura(cartella));
  if (freno.altra()) {
    std::vector<SegmentoIndice> segmenti;
    {
      Connessione c = _db();
      segmenti = tutte_per_inizio(c);
    }
    std::vector<std::int64_t> tolte = da_togliere;
    std::sort(tolte.begin(), tolte.end());
    std::vector<Verdetto> verdetti(segmenti.size(), Verdetto::kResta);
    for (std::size_t i = 0; i < segmenti.size(); ++i)
      if (std::binary_search(tolte.begin(), tolte.end(), segmenti[i].id))
        verdetti[i] = Verdetto::kSoloRiga;
    libera_spazio(freno, segmenti, verdetti, radice, reale, cartella, da_togliere);
  }
  scrivi(da_togliere, limite);
  ripiega_sommari(_fuso());
}

}  // namespace nvr
