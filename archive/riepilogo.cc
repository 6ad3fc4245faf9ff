#include "archive/riepilogo.h"

#include <algorithm>
#include <cmath>

#include "core/db.h"

namespace nvr {

void Somma::aggiungi(double dimensione, double durata) {
  ++n;
  byte += dimensione;
  sec += std::max(0.0, durata);
}

RiepilogoArchivio riepilogo_archivio(Zona z) {
  RiepilogoArchivio r;
  // One pass in table order: an ordered read would look each row up from the (cam_id, inizio)
  // index at random. Rows come as they were written, cameras interleaved, so the camera's entry
  // is looked up again when the camera changes and the day's entry when the camera or the day
  // does; the zone is asked once, as the host may be slow to answer.
  GiornoLocale giorno_di(z);
  RiepilogoCamera* attuale = nullptr;
  CamId id_attuale = 0;
  Somma* somma_giorno = nullptr;
  std::string giorno_attuale;
  Connessione c = _db();
  c.scorri("SELECT cam_id, inizio, fine, dimensione FROM nvr_registrazioni", {},
           [&](const Riga& riga) {
             const double inizio = come_reale(riga[1]), fine = come_reale(riga[2]);
             const double dimensione = static_cast<double>(come_intero(riga[3]));
             const CamId id = come_intero(riga[0]);
             if (!attuale || id_attuale != id) {
               attuale = &r.camere[id];
               id_attuale = id;
               somma_giorno = nullptr;
             }
             attuale->totale.aggiungi(dimensione, fine - inizio);
             const std::string& giorno = giorno_di.di(inizio);
             if (!somma_giorno || giorno != giorno_attuale) {
               giorno_attuale = giorno;
               somma_giorno = &attuale->giorni[giorno];
             }
             somma_giorno->aggiungi(dimensione, fine - inizio);
             ++r.righe;
             r.byte += dimensione;
           });
  return r;
}

namespace {

// The newest end of camera `id`, as SELECT MAX(fine) ... WHERE cam_id=? answers it, without an
// index on fine. M is the newest start, D the bound on the camera's lengths: a row starting
// before M - D ends before M, so if some row from M - D on ends at M or later, the maximum is
// among those rows (and those without a start, which the range cannot reach). Anything odd (no
// bound, starts that are not numbers, ends that are text, no end reaching M) takes the plain
// statement.
Valore ultima_fine(Connessione& c, std::int64_t id, const Valore& durata_max, bool fine_testo) {
  const char* semplice = "SELECT MAX(fine) FROM nvr_registrazioni WHERE cam_id=?";
  if (nullo(durata_max) || fine_testo) return c.righe(semplice, {id}).at(0).at(0);
  const Valore m =
      c.righe("SELECT MAX(inizio) FROM nvr_registrazioni WHERE cam_id=?", {id}).at(0).at(0);
  const double* ultimo = std::get_if<double>(&m);
  const std::int64_t* ultimo_intero = std::get_if<std::int64_t>(&m);
  if (!ultimo && !ultimo_intero) return c.righe(semplice, {id}).at(0).at(0);
  const double mm = ultimo ? *ultimo : static_cast<double>(*ultimo_intero);
  const double d = come_reale(durata_max);
  // A second, and a part of the magnitudes, spare for the rounding of fine - inizio.
  const double da = mm - d - 1 - (std::fabs(mm) + std::fabs(d)) * 1e-12;
  const Valore x =
      c.righe(
           "SELECT MAX(f) FROM (SELECT MAX(fine) AS f FROM nvr_registrazioni WHERE cam_id=?1 AND "
           "inizio IS NULL UNION ALL SELECT MAX(fine) FROM nvr_registrazioni WHERE cam_id=?1 AND "
           "inizio >= ?2)",
           {id, da})
          .at(0)
          .at(0);
  if (!nullo(x) && da < mm && come_reale(x) >= mm) return x;
  return c.righe(semplice, {id}).at(0).at(0);
}

}  // namespace

std::map<CamId, TotaliCamera> totali_camere(const std::vector<CamId>& cams) {
  std::map<CamId, TotaliCamera> totali;
  Connessione c = _db();
  for (CamId cam : cams) {
    const std::int64_t id = cam;
    auto somme = c.righe(
        "SELECT n, byte, durata_max, fine_non_numeriche FROM nvr_reg_totali WHERE cam_id=?", {id});
    TotaliCamera& t = totali[cam];
    Valore fine;
    if (!somme.empty()) {
      t.n = come_intero(somme[0][0]);
      t.byte = come_reale(somme[0][1]);
      fine = ultima_fine(c, id, somme[0][2], come_intero(somme[0][3]) != 0);
    }
    if (!nullo(fine)) t.ultima_fine = come_reale(fine);
  }
  return totali;
}

std::int64_t righe_indice() {
  Connessione c = _db();
  return come_intero(c.righe("SELECT COALESCE(SUM(n), 0) FROM nvr_reg_totali").at(0).at(0));
}

std::map<CamId, RecentiCamera> recenti_camere(const std::vector<CamId>& cams, double da) {
  std::map<CamId, RecentiCamera> recenti;
  Connessione c = _db();
  for (CamId cam : cams) {
    const std::int64_t id = cam;
    auto riga = c.righe(
        "SELECT COALESCE(SUM(dimensione), 0), MIN(inizio) FROM nvr_registrazioni WHERE cam_id=? "
        "AND inizio>=?",
        {id, da});
    RecentiCamera& r = recenti[cam];
    r.byte = come_reale(riga.at(0).at(0));
    if (!nullo(riga.at(0).at(1))) r.primo_inizio = come_reale(riga.at(0).at(1));
  }
  return recenti;
}

}  // namespace nvr
