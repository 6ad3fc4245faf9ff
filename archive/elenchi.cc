#include "archive/elenchi.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/db.h"
#include "core/tempo.h"

namespace nvr {

namespace {

std::string giorno_locale(const Valore& inizio) {
  return formatta(scomponi(come_reale(inizio), nullptr), "%Y-%m-%d");
}

// Adds the machine-local day of every start among the rows that `filtro` (on cam_id) selects.
// An archive holds thousands of segments a day: rather than reading them all, the (cam_id,
// inizio) index is asked for the first start at or after each next local midnight, one seek
// per day that has recordings.
void giorni_di(Connessione& c, const std::string& filtro, const std::vector<Valore>& chiave,
               std::set<std::string>& giorni) {
  auto con = [&](Valore v) {
    std::vector<Valore> p = chiave;
    p.push_back(std::move(v));
    return p;
  };
  // A start that is not there reads as 0, the epoch's day.
  if (!c.righe("SELECT 1 FROM nvr_registrazioni WHERE " + filtro + " AND inizio IS NULL LIMIT 1",
               chiave)
           .empty())
    giorni.insert(giorno_locale(Valore()));
  const std::string primo = "SELECT inizio FROM nvr_registrazioni WHERE " + filtro +
                            " AND inizio >= ? ORDER BY inizio "
                            "LIMIT 1";
  double da = -std::numeric_limits<double>::max();
  for (;;) {
    std::vector<Riga> r = c.righe(primo, con(da));
    if (r.empty()) return;
    if (std::holds_alternative<std::string>(r[0][0])) {
      // Texts sort after every number: the rest are texts, read one by one.
      c.scorri("SELECT inizio FROM nvr_registrazioni WHERE " + filtro +
                   " AND typeof(inizio) IN ('text', 'blob')",
               chiave, [&](const Riga& x) { giorni.insert(giorno_locale(x[0])); });
      return;
    }
    const double t = come_reale(r[0][0]);
    std::tm giorno = scomponi(t, nullptr);
    giorni.insert(formatta(giorno, "%Y-%m-%d"));
    std::tm dopo = giorno;
    dopo.tm_mday += 1;
    dopo.tm_hour = dopo.tm_min = dopo.tm_sec = 0;
    const double mezzanotte = epoch_di(dopo, nullptr);
    // Should the computed midnight ever fall past the next day's start, step row by row.
    const bool esatta = mezzanotte > t && formatta(scomponi(mezzanotte - 1, nullptr), "%Y-%m-%d") ==
                                              formatta(giorno, "%Y-%m-%d");
    da = esatta ? mezzanotte : std::nextafter(t, std::numeric_limits<double>::infinity());
  }
}

}  // namespace

std::set<std::string> giorni_con_registrazioni(std::optional<CamId> cam) {
  std::set<std::string> giorni;
  Connessione c = _db();
  if (cam) {
    giorni_di(c, "cam_id=?", {std::int64_t{*cam}}, giorni);
    return giorni;
  }
  // Every camera id in turn (one index seek each), then the rows without one.
  std::vector<Riga> id = c.righe("SELECT MIN(cam_id) FROM nvr_registrazioni");
  while (!nullo(id.at(0).at(0))) {
    giorni_di(c, "cam_id=?", {id[0][0]}, giorni);
    id = c.righe("SELECT MIN(cam_id) FROM nvr_registrazioni WHERE cam_id > ?", {id[0][0]});
  }
  giorni_di(c, "cam_id IS NULL", {}, giorni);
  return giorni;
}

GiornataCamera giornata_camera(CamId cam, double inizio, double fine) {
  GiornataCamera g;
  Connessione c = _db();
  const std::int64_t id = cam;
  // "fine > day start" alone gives the index no lower end, so every earlier segment of the
  // camera would be read. No segment lasts longer than the bound the totals keep on the
  // camera's lengths, so none starting before the day minus that bound can reach into the day
  // (one second spare for rounding of the stored times). No bound: no row has both times, none
  // can overlap. An end stored as text sorts after every number and escapes the bound: while
  // the camera has one, the range has no lower end.
  auto totali =
      c.righe("SELECT durata_max, fine_non_numeriche FROM nvr_reg_totali WHERE cam_id=?", {id});
  const auto leggi = [&](const Riga& r) {
    g.segmenti.push_back({come_intero(r[0]), come_reale(r[1]), come_reale(r[2]), come_intero(r[3]),
                          come_testo(r[4]), come_testo(r[5])});
  };
  const char* colonne = "SELECT id, inizio, fine, dimensione, motivo, file FROM nvr_registrazioni ";
  if (!totali.empty() && come_intero(totali[0][1]) != 0)
    c.scorri(std::string(colonne) + "WHERE cam_id=? AND inizio < ? AND fine > ? ORDER BY inizio",
             {id, fine, inizio}, leggi);
  else if (!totali.empty() && !nullo(totali[0][0]))
    c.scorri(std::string(colonne) +
                 "WHERE cam_id=? AND inizio >= ? AND inizio < ? AND fine > ? ORDER BY inizio",
             {id, inizio - std::max(0.0, come_reale(totali[0][0])) - 1, fine, inizio}, leggi);
  c.scorri(
      "SELECT ts, entity_id, stato FROM nvr_eventi WHERE cam_id=? AND ts >= ? AND ts < ? "
      "ORDER BY ts",
      {id, inizio, fine}, [&](const Riga& e) {
        g.eventi.push_back({come_reale(e[0]), come_testo(e[1]), come_testo(e[2])});
      });
  return g;
}

std::optional<std::string> file_registrazione(std::int64_t id) {
  Connessione c = _db();
  auto righe = c.righe("SELECT file FROM nvr_registrazioni WHERE id=?", {id});
  if (righe.empty()) return std::nullopt;
  return come_testo(righe[0][0]);
}

bool camera_nell_indice(CamId cam) {
  Connessione c = _db();
  return !c.righe("SELECT 1 FROM nvr_registrazioni WHERE cam_id=? LIMIT 1", {std::int64_t{cam}})
              .empty();
}

std::set<std::int64_t> righe_presenti(const std::vector<std::int64_t>& ids) {
  constexpr std::size_t kLotto = 500;  // well below SQLite's limit on bound parameters
  std::set<std::int64_t> presenti;
  Connessione c = _db();
  for (std::size_t i = 0; i < ids.size(); i += kLotto) {
    const std::size_t n = std::min(kLotto, ids.size() - i);
    std::string domande = "?";
    for (std::size_t k = 1; k < n; ++k) domande += ",?";
    std::vector<Valore> p(ids.begin() + i, ids.begin() + i + n);
    c.scorri("SELECT id FROM nvr_registrazioni WHERE id IN (" + domande + ")", p,
             [&](const Riga& r) { presenti.insert(come_intero(r[0])); });
  }
  return presenti;
}

}  // namespace nvr
