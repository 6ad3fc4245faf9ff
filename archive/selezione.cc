#include "archive/selezione.h"

#include "core/db.h"

namespace nvr {

std::vector<SegmentoScelto> segmenti_selezionati(const Selezione& s) {
  std::string sql = "SELECT id, file, cam_id FROM nvr_registrazioni";
  std::vector<Valore> parametri;
  if (s.cam && s.giorno) {
    sql += " WHERE cam_id=? AND inizio >= ? AND inizio < ?";
    parametri = {*s.cam, s.giorno->first, s.giorno->second};
  } else if (s.cam) {
    sql += " WHERE cam_id=?";
    parametri = {*s.cam};
  } else if (s.giorno) {
    sql += " WHERE inizio >= ? AND inizio < ?";
    parametri = {s.giorno->first, s.giorno->second};
  }
  std::vector<SegmentoScelto> scelti;
  Connessione c = _db();
  c.scorri(sql, parametri, [&](const Riga& r) {
    scelti.push_back({come_intero(r[0]), come_testo(r[1]), come_intero(r[2])});
  });
  return scelti;
}

void cancella_selezione(const Selezione& s, const std::vector<SegmentoScelto>& scelti) {
  Connessione c = _db();
  for (const SegmentoScelto& x : scelti)
    c.esegui("DELETE FROM nvr_registrazioni WHERE id=?", {x.id});
  if (s.tutto) {
    c.esegui("DELETE FROM nvr_eventi");
  } else if (s.cam && s.giorno) {
    c.esegui("DELETE FROM nvr_eventi WHERE cam_id=? AND ts >= ? AND ts < ?",
             {*s.cam, s.giorno->first, s.giorno->second});
  } else if (s.cam) {
    c.esegui("DELETE FROM nvr_eventi WHERE cam_id=?", {*s.cam});
  } else if (s.giorno) {
    c.esegui("DELETE FROM nvr_eventi WHERE ts >= ? AND ts < ?",
             {s.giorno->first, s.giorno->second});
  }
  c.commit();
}

void cancella_registrazione(std::int64_t id) {
  Connessione c = _db();
  c.esegui("DELETE FROM nvr_registrazioni WHERE id=?", {id});
  c.commit();
}

}  // namespace nvr
