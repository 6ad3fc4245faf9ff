#include "core/db.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "core/stato.h"
#include "testing/ambiente.h"
#include "testing/azzera.h"

namespace nvr {
namespace {

using testing::HostDiProva;

class DbTest : public ::testing::Test {
 protected:
  HostDiProva h;

  std::vector<std::string> nomi(const std::string& tipo) {
    std::vector<std::string> fuori;
    Connessione c = _db();
    for (const Riga& r : c.righe("SELECT name FROM sqlite_master WHERE type=? AND name NOT LIKE "
                                 "'sqlite_%' ORDER BY name",
                                 {tipo}))
      fuori.push_back(come_testo(r[0]));
    return fuori;
  }

  // Column name, declared type, default and primary-key flag, as SQLite reports them.
  std::vector<std::string> colonne(const std::string& tabella) {
    std::vector<std::string> fuori;
    Connessione c = _db();
    for (const Riga& r :
         c.righe("SELECT name, type, dflt_value, pk FROM pragma_table_info(?)", {tabella}))
      fuori.push_back(come_testo(r[0]) + " " + come_testo(r[1]) + " " +
                      (nullo(r[2]) ? "-" : come_testo(r[2])) + " " + come_testo(r[3]));
    return fuori;
  }
};

TEST_F(DbTest, FreshDatabaseGetsSchemaAndSeedRow) {
  _init_db();
  EXPECT_EQ(nomi("table"),
            (std::vector<std::string>{"nvr_camere", "nvr_config", "nvr_eventi", "nvr_reg_cartelle",
                                      "nvr_reg_giorni", "nvr_reg_sommari", "nvr_reg_totali",
                                      "nvr_reg_variazioni", "nvr_registrazioni", "tapo_cameras"}));
  EXPECT_EQ(nomi("index"), (std::vector<std::string>{"nvr_ev_cam_ts", "nvr_reg_cam_inizio"}));
  EXPECT_EQ(nomi("trigger"),
            (std::vector<std::string>{"nvr_reg_totali_del", "nvr_reg_totali_ins",
                                      "nvr_reg_totali_upd", "nvr_reg_variazioni_del",
                                      "nvr_reg_variazioni_ins", "nvr_reg_variazioni_upd"}));

  EXPECT_EQ(colonne("nvr_config"),
            (std::vector<std::string>{"id INTEGER - 1", "attivo INTEGER 0 0", "cartella TEXT '' 0",
                                      "destinazione TEXT '{}' 0", "segmento_sec INTEGER 300 0",
                                      "giorni INTEGER 14 0", "spazio_min_gb REAL 2.0 0"}));
  EXPECT_EQ(colonne("nvr_camere"),
            (std::vector<std::string>{"cam_id INTEGER - 1", "attiva INTEGER 0 0",
                                      "modo TEXT 'sempre' 0", "orari TEXT '[]' 0",
                                      "eventi TEXT '[]' 0", "post_roll INTEGER 30 0"}));
  Connessione c = _db();
  EXPECT_EQ(come_intero(c.righe("SELECT COUNT(*) FROM nvr_config WHERE id=1")[0][0]), 1);
}

// The per-camera bound on lengths and count of ends stored as text, through every kind of
// write, on a fresh database and on one upgraded from the schema with the three extra indexes.
void totali_in_ogni_scrittura(HostDiProva& h, bool vecchio,
                              const std::function<std::vector<std::string>()>& indici) {
  if (vecchio) {
    h.sql(
        "CREATE TABLE nvr_registrazioni (id INTEGER PRIMARY KEY AUTOINCREMENT, cam_id INTEGER, "
        "inizio REAL, fine REAL, file TEXT UNIQUE, dimensione INTEGER DEFAULT 0, motivo TEXT "
        "DEFAULT '');"
        "CREATE INDEX nvr_reg_cam_inizio ON nvr_registrazioni (cam_id, inizio);"
        "CREATE INDEX nvr_reg_cam_durata ON nvr_registrazioni (cam_id, fine - inizio);"
        "CREATE INDEX nvr_reg_cam_fine ON nvr_registrazioni (cam_id, fine);"
        "CREATE INDEX nvr_reg_cam_inizio_fine ON nvr_registrazioni (cam_id, inizio, fine, "
        "dimensione);"
        "CREATE TABLE nvr_reg_totali (cam_id INTEGER PRIMARY KEY, n INTEGER NOT NULL, byte "
        "INTEGER NOT NULL);"
        "CREATE TRIGGER nvr_reg_totali_ins AFTER INSERT ON nvr_registrazioni WHEN "
        "typeof(NEW.cam_id) = 'integer' BEGIN "
        "INSERT OR IGNORE INTO nvr_reg_totali (cam_id, n, byte) VALUES (NEW.cam_id, 0, 0); "
        "UPDATE nvr_reg_totali SET n = n + 1 WHERE cam_id = NEW.cam_id; END;");
  } else {
    _init_db();
  }
  h.sql(
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES "
      "(1, 100, 400, '/a'), (1, 500, 450, '/b'), (1, 600, 'presto', '/c'), (2, NULL, 5, '/d'), "
      "('x', 0, 99999, '/e')");
  if (vecchio) _init_db();
  Connessione c = _db();
  const auto totali = [&c] {
    std::string fuori;
    for (const Riga& r : c.righe("SELECT cam_id, n, durata_max, fine_non_numeriche FROM "
                                 "nvr_reg_totali ORDER BY cam_id"))
      fuori += std::to_string(come_intero(r[0])) + ":" + std::to_string(come_intero(r[1])) + ":" +
               (nullo(r[2]) ? "-" : std::to_string(come_intero(r[2]))) + ":" +
               std::to_string(come_intero(r[3])) + " ";
    return fuori;
  };
  EXPECT_EQ(totali(), "1:3:300:1 2:1:-:0 ");
  c.esegui("UPDATE nvr_registrazioni SET fine = 1600 WHERE file = '/c'");
  EXPECT_EQ(totali(), "1:3:1000:0 2:1:-:0 ");
  c.esegui("DELETE FROM nvr_registrazioni WHERE file = '/c'");  // the bound is not lowered
  c.esegui("UPDATE nvr_registrazioni SET inizio = 0, fine = x'00' WHERE file = '/d'");
  c.esegui("UPDATE nvr_registrazioni SET cam_id = 2 WHERE file = '/a'");
  EXPECT_EQ(totali(), "1:1:1000:0 2:2:300:1 ");
  c.commit();
  if (vecchio) {
    EXPECT_EQ(indici().size(), 5u);  // no drop on the start path: the start's background step
    togli_indici_superati();
  }
  EXPECT_EQ(indici(), (std::vector<std::string>{"nvr_ev_cam_ts", "nvr_reg_cam_inizio"}));
}

TEST_F(DbTest, TotalsKeepLengthBoundAndTextEndsOnNewDatabase) {
  totali_in_ogni_scrittura(h, false, [this] { return nomi("index"); });
}

TEST_F(DbTest, OldDatabaseLosesExtraIndexesAndGetsBoundFilled) {
  totali_in_ogni_scrittura(h, true, [this] { return nomi("index"); });
}

TEST_F(DbTest, ConstraintsHold) {
  _init_db();
  EXPECT_THROW(h.sql("INSERT INTO nvr_config (id) VALUES (2)"), std::runtime_error);

  Connessione c = _db();
  const char* ins =
      "INSERT OR IGNORE INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) "
      "VALUES (?,?,?,?,?,?)";
  c.esegui(ins, {std::int64_t{1}, 10.0, 20.0, std::string("/a/b.mp4"), std::int64_t{5},
                 std::string("continua")});
  c.esegui(ins, {std::int64_t{1}, 11.0, 21.0, std::string("/a/b.mp4"), std::int64_t{6},
                 std::string("")});
  c.commit();
  auto righe = c.righe("SELECT inizio, dimensione FROM nvr_registrazioni");
  ASSERT_EQ(righe.size(), 1u);
  EXPECT_DOUBLE_EQ(come_reale(righe[0][0]), 10.0);
}

// That a failed batch leaves none of its rows is seen in decisione_test.cc (a trigger refusing
// one row of a pass of events).
TEST_F(DbTest, BatchBindsEveryRowAfreshAndStopsAtABadOne) {
  _init_db();
  const char* ins =
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) "
      "VALUES (?,?,?,?,?,?)";
  Connessione c = _db();
  // The second row leaves `motivo` null: nothing of the row before may stick to it.
  c.esegui_molti(
      ins, {{std::int64_t{1}, 1.0, 2.0, std::string("/a"), std::int64_t{10}, std::string("orario")},
            {std::int64_t{2}, 3.0, 4.0, std::string("/b"), std::int64_t{20}, std::monostate{}}});
  auto righe = c.righe("SELECT file, dimensione, motivo FROM nvr_registrazioni ORDER BY cam_id");
  ASSERT_EQ(righe.size(), 2u);
  EXPECT_EQ(come_testo(righe[1][0]), "/b");
  EXPECT_EQ(come_intero(righe[1][1]), 20);
  EXPECT_TRUE(nullo(righe[1][2]));
  EXPECT_THROW(c.esegui_molti(ins, {{std::int64_t{3}, 1.0, 2.0, std::string("/c"), std::int64_t{1},
                                     std::string("")},
                                    {std::int64_t{4}, 1.0}}),
               ErroreDb);
}

TEST_F(DbTest, WriterWaitsForAnotherWriterToFinish) {
  _init_db();
  Connessione bloccante = _db();
  bloccante.esegui("UPDATE nvr_config SET cartella='x'");  // holds the write lock
  std::thread rilascia([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    bloccante.commit();
  });
  auto t0 = std::chrono::steady_clock::now();
  Connessione c = _db();
  c.esegui("UPDATE nvr_config SET giorni=3");
  c.commit();
  double atteso = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  rilascia.join();
  EXPECT_GT(atteso, 1.0);
  auto r = c.righe("SELECT cartella, giorni FROM nvr_config");
  EXPECT_EQ(come_testo(r[0][0]), "x");
  EXPECT_EQ(come_intero(r[0][1]), 3);
}

TEST_F(DbTest, ErrorsAreReportedNotSwallowed) {
  Connessione c = _db();
  EXPECT_THROW(c.righe("SELECT nulla FROM tabella_che_non_esiste"), ErroreDb);
  EXPECT_THROW(c.esegui("UPDATE tapo_cameras SET name=? WHERE id=?", {std::string("x")}), ErroreDb);
  azzera_stato_per_test();
  EXPECT_THROW(_db(), ErroreDb);  // not attached to a host
}

}  // namespace
}  // namespace nvr
