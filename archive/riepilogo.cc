#include "archive/riepilogo.h"

#include <algorithm>

#include "core/db.h"

namespace nvr {

void Somma::aggiungi(double dimensione, double durata) {
  ++n;
  byte += dimensione;
  sec += std::max(0.0, durata);
}

RiepilogoArchivio riepilogo_archivio(Zona z) {
  RiepilogoArchivio r;
  // Rows come camera by camera in time order, so the day and the camera's entry are looked up
  // again only when they change; the zone is asked once, as the host may be slow to answer.
  GiornoLocale giorno_di(z);
  RiepilogoCamera* attuale = nullptr;
  CamId id_attuale = 0;
  Somma* somma_giorno = nullptr;
  std::string giorno_attuale;
  Connessione c = _db();
  c.scorri(
      "SELECT cam_id, inizio, fine, dimensione FROM nvr_registrazioni ORDER BY cam_id, "
      "inizio",
      {}, [&](const Riga& riga) {
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

std::map<CamId, TotaliCamera> totali_camere(const std::vector<CamId>& cams) {
  std::map<CamId, TotaliCamera> totali;
  Connessione c = _db();
  for (CamId cam : cams) {
    const std::int64_t id = cam;
    auto somme = c.righe("SELECT n, byte FROM nvr_reg_totali WHERE cam_id=?", {id});
    auto ultima = c.righe("SELECT MAX(fine) FROM nvr_registrazioni WHERE cam_id=?", {id});
    TotaliCamera& t = totali[cam];
    if (!somme.empty()) {
      t.n = come_intero(somme[0][0]);
      t.byte = come_reale(somme[0][1]);
    }
    const Valore& fine = ultima.at(0).at(0);
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
        "SELECT COALESCE(SUM(dimensione), 0), MIN(inizio) FROM nvr_registrazioni "
        "INDEXED BY nvr_reg_cam_inizio_fine WHERE cam_id=? AND inizio>=?",
        {id, da});
    RecentiCamera& r = recenti[cam];
    r.byte = come_reale(riga.at(0).at(0));
    if (!nullo(riga.at(0).at(1))) r.primo_inizio = come_reale(riga.at(0).at(1));
  }
  return recenti;
}

}  // namespace nvr
