#include "web/api_stato.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "archive/allineamento.h"
#include "core/config.h"
#include "core/db.h"
#include "core/numeri.h"
#include "testing/ambiente.h"
#include "web/api_elimina.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::HostDiProva;

// The status entry of each camera must say what an aggregate over the index says, after every
// kind of writer has been at the index: the totals it reads are kept apart from the rows.
class StatoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    h.aggiungi_camera(1, "Garage", "rtsp://x/1");
    h.aggiungi_camera(2, "Orto", "rtsp://x/2");
    cfg.cartella = t / "archivio";
    cfg.spazio_min_gb = 0;
    fs::create_directories(cfg.cartella);
  }

  void riga(std::int64_t cam, double inizio, std::int64_t dimensione, const std::string& nome) {
    const std::string file = cfg.cartella + "/" + nome;
    testing::scrivi_file(file, "x");
    Connessione c = _db();
    c.esegui(
        "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) VALUES "
        "(?,?,?,?,?,?)",
        {cam, inizio, inizio + 300, file, dimensione, std::string("continua")});
    c.commit();
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

  HostDiProva h;
  testing::CartellaTemporanea t;
  Config cfg;
};

TEST_F(StatoTest, CameraTotalsFollowEveryWriter) {
  // Rows indexed before the totals existed (an archive from an older version) are counted.
  h.sql(
      "CREATE TABLE nvr_registrazioni (id INTEGER PRIMARY KEY AUTOINCREMENT, cam_id INTEGER, "
      "inizio REAL, fine REAL, file TEXT UNIQUE, dimensione INTEGER DEFAULT 0, motivo TEXT "
      "DEFAULT '')");
  riga(1, 1000, 1234567890, "a.mp4");
  riga(2, 2000, 5000000000, "b.mp4");
  _init_db();
  _salva_config(cfg);
  EXPECT_EQ(dallo_stato(), dalle_righe());
  EXPECT_EQ(dallo_stato()[0], (Json{1, 1.23, 1300.0}));

  struct Passo {
    const char* cosa;
    std::function<void()> fai;
  };
  const std::vector<Passo> passi = {
      {"new rows, one of a camera id that is not a number",
       [&] {
         for (int i = 0; i < 5; ++i) riga(1, 3000 + 300 * i, 700000000, std::to_string(i) + ".mp4");
         h.sql(
             "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione) VALUES "
             "('x', 1, 2, 'm', 5)");
       }},
      {"a row's size and camera corrected",
       [&] {
         h.sql("UPDATE nvr_registrazioni SET dimensione = 1 WHERE inizio = 3000");
         h.sql("UPDATE nvr_registrazioni SET cam_id = 2 WHERE inizio = 3300");
       }},
      {"reconciliation drops the rows of vanished files",
       [&] {
         fs::remove(cfg.cartella + "/2.mp4");
         fs::remove(cfg.cartella + "/b.mp4");
         azzera_allineamento_per_test();
         EXPECT_GE(_allinea(cfg), 2);
       }},
      {"the deletion API removes one recording",
       [&] {
         Richiesta r;
         r.metodo = "DELETE";
         Connessione c = _db();
         r.rid = come_intero(c.righe("SELECT MAX(id) FROM nvr_registrazioni WHERE cam_id=1")[0][0]);
         EXPECT_EQ(api_elimina_registrazione(r).status, 200);
       }},
      {"every row gone", [&] { h.sql("DELETE FROM nvr_registrazioni"); }},
  };
  for (const Passo& p : passi) {
    p.fai();
    EXPECT_EQ(dallo_stato(), dalle_righe()) << p.cosa;
  }
  EXPECT_EQ(dallo_stato()[1], (Json{0, 0.0, nullptr}));
}

}  // namespace
}  // namespace nvr
