#include "web/api_stato.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/config.h"
#include "core/db.h"
#include "core/numeri.h"
#include "testing/ambiente.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;

// The status entry of each camera must say what an aggregate over the index says, after every
// kind of change to the index: the totals it reads are kept apart from the rows.
class StatoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    h.aggiungi_camera(1, "Garage", "rtsp://x/1");
    h.aggiungi_camera(2, "Orto", "rtsp://x/2");
    cfg.cartella = t / "archivio";
    cfg.spazio_min_gb = 0;
    fs::create_directories(cfg.cartella);
  }

  void riga(std::int64_t cam, double inizio, std::int64_t dimensione) {
    h.sql("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione) VALUES (" +
          std::to_string(cam) + ", " + std::to_string(inizio) + ", " +
          std::to_string(inizio + 300) + ", '" + std::to_string(inizio) + ".mp4', " +
          std::to_string(dimensione) + ")");
  }

  // {file, gb, ultimo} of each camera: from the status, and from the rows themselves.
  std::vector<Json> dallo_stato() {
    std::vector<Json> v;
    const Json stato = stato_generale();
    for (const Json& cam : stato["telecamere"])
      v.push_back(Json{cam["file"], cam["gb"], cam["ultimo"]});
    return v;
  }
  std::vector<Json> dalle_righe() {
    std::vector<Json> v;
    Connessione c = _db();
    for (std::int64_t cam : {1, 2}) {
      const Riga r = c.righe(
          "SELECT COUNT(*), COALESCE(SUM(dimensione),0), MAX(fine) FROM nvr_registrazioni WHERE "
          "cam_id=?",
          {cam})[0];
      v.push_back(Json{come_intero(r[0]), arrotonda(come_reale(r[1]) / 1e9, 2),
                       nullo(r[2]) ? Json() : Json(come_reale(r[2]))});
    }
    return v;
  }

  testing::HostDiProva h;
  testing::CartellaTemporanea t;
  Config cfg;
};

TEST_F(StatoTest, CameraTotalsFollowEveryWriter) {
  // Rows indexed before the totals existed (an archive from an older version) are counted.
  h.sql(
      "CREATE TABLE nvr_registrazioni (id INTEGER PRIMARY KEY AUTOINCREMENT, cam_id INTEGER, "
      "inizio REAL, fine REAL, file TEXT UNIQUE, dimensione INTEGER DEFAULT 0, motivo TEXT "
      "DEFAULT '')");
  riga(1, 1000, 1234567890);
  riga(2, 2000, 5000000000);
  _init_db();
  _salva_config(cfg);
  EXPECT_EQ(dallo_stato()[0], (Json{1, 1.23, 1300.0}));

  const char* const passi[] = {
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione) VALUES "
      "(1, 3000, 3300, 'a', 700000000), (1, 3300, 3600, 'b', 5), ('x', 1, 2, 'm', 5)",
      "UPDATE nvr_registrazioni SET dimensione = 1 WHERE inizio = 3000",
      "UPDATE nvr_registrazioni SET cam_id = 2 WHERE inizio = 3300",
      "DELETE FROM nvr_registrazioni WHERE inizio = 2000",
      // The newest end is found near the newest start; odd rows must not change the answer.
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, 5000, 4000, 'n')",
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, 100, 9000, 'l')",
      "DELETE FROM nvr_registrazioni WHERE file = 'l'",
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, NULL, 7000, 'v')",
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, 6000, NULL, 'f')",
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, -9e9, '9', 'q')",
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, -9e9, 'z', 't')",
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, 'z', 10, 'u')",
      "DELETE FROM nvr_registrazioni WHERE file IN ('t', 'u', 'v')",
      "DELETE FROM nvr_registrazioni",
  };
  for (const char* sql : passi) {
    h.sql(sql);
    EXPECT_EQ(dallo_stato(), dalle_righe()) << sql;
  }
  EXPECT_EQ(dallo_stato()[1], (Json{0, 0.0, nullptr}));
}

}  // namespace
}  // namespace nvr
