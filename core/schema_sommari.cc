#include "core/schema_sommari.h"

#include "core/db.h"

namespace nvr {

void crea_schema_sommari(Connessione& c) {
  // AUTOINCREMENT: a journal id is never used twice, so "everything up to id J" names the same
  // rows before and after the journal has been emptied.
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_reg_variazioni (id INTEGER PRIMARY KEY AUTOINCREMENT, "
      "segno INTEGER NOT NULL, cam_id, inizio, fine, dimensione, file)");
  c.esegui(
      "CREATE TRIGGER IF NOT EXISTS nvr_reg_variazioni_ins AFTER INSERT ON nvr_registrazioni "
      "BEGIN INSERT INTO nvr_reg_variazioni (segno, cam_id, inizio, fine, dimensione, file) "
      "VALUES (1, NEW.cam_id, NEW.inizio, NEW.fine, NEW.dimensione, NEW.file); END");
  c.esegui(
      "CREATE TRIGGER IF NOT EXISTS nvr_reg_variazioni_del AFTER DELETE ON nvr_registrazioni "
      "BEGIN INSERT INTO nvr_reg_variazioni (segno, cam_id, inizio, fine, dimensione, file) "
      "VALUES (-1, OLD.cam_id, OLD.inizio, OLD.fine, OLD.dimensione, OLD.file); END");
  c.esegui(
      "CREATE TRIGGER IF NOT EXISTS nvr_reg_variazioni_upd AFTER UPDATE OF cam_id, inizio, fine, "
      "dimensione, file ON nvr_registrazioni BEGIN "
      "INSERT INTO nvr_reg_variazioni (segno, cam_id, inizio, fine, dimensione, file) "
      "VALUES (-1, OLD.cam_id, OLD.inizio, OLD.fine, OLD.dimensione, OLD.file); "
      "INSERT INTO nvr_reg_variazioni (segno, cam_id, inizio, fine, dimensione, file) "
      "VALUES (1, NEW.cam_id, NEW.inizio, NEW.fine, NEW.dimensione, NEW.file); END");
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_reg_giorni (cam_id INTEGER NOT NULL, giorno TEXT NOT NULL, "
      "n INTEGER NOT NULL, byte INTEGER NOT NULL, sec REAL NOT NULL, PRIMARY KEY (cam_id, giorno)) "
      "WITHOUT ROWID");
  // Per folder of indexed files: how many rows and the sum of their names' shares, so that
  // reconciliation looks again only at folders that changed.
  c.esegui(
      "CREATE TABLE IF NOT EXISTS nvr_reg_cartelle (cartella TEXT PRIMARY KEY, n INTEGER NOT "
      "NULL, firma INTEGER NOT NULL) WITHOUT ROWID");
  c.esegui("CREATE TABLE IF NOT EXISTS nvr_reg_sommari (chiave TEXT PRIMARY KEY, valore)");
}

}  // namespace nvr
