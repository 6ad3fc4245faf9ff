#include "testing/righe_di_prova.h"

#include "core/db.h"

namespace nvr::testing {

std::int64_t aggiungi_registrazione(std::int64_t cam, double inizio, const std::string& file) {
  Connessione c = _db();
  c.esegui(
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) "
      "VALUES (?, ?, ?, ?, 0, 'continua')",
      {cam, inizio, inizio + 300, file});
  std::int64_t id = come_intero(c.righe("SELECT last_insert_rowid()").at(0).at(0));
  c.commit();
  return id;
}

std::vector<std::string> file_indicizzati() {
  std::vector<std::string> file;
  Connessione c = _db();
  for (const Riga& r : c.righe("SELECT file FROM nvr_registrazioni ORDER BY id"))
    file.push_back(come_testo(r.at(0)));
  return file;
}

void aggiungi_evento(std::int64_t cam, double ts) {
  Connessione c = _db();
  c.esegui("INSERT INTO nvr_eventi (cam_id, ts, entity_id, stato) VALUES (?, ?, 'sensore', 'on')",
           {cam, ts});
  c.commit();
}

std::vector<double> ts_eventi() {
  std::vector<double> ts;
  Connessione c = _db();
  for (const Riga& r : c.righe("SELECT ts FROM nvr_eventi ORDER BY id"))
    ts.push_back(come_reale(r.at(0)));
  return ts;
}

}  // namespace nvr::testing
