#include "core/config.h"

#include <gtest/gtest.h>

#include "core/db.h"
#include "testing/ambiente.h"

namespace nvr {
namespace {

using testing::HostDiProva;

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { _init_db(); }

  std::string testo(const std::string& sql) {
    Connessione c = _db();
    return come_testo(c.righe(sql).at(0).at(0));
  }

  HostDiProva h;
};

TEST_F(ConfigTest, StoredValuesReadBackWithDefaults) {
  struct Caso {
    const char* aggiornamento;
    int attivo;
    const char* cartella;
    const char* destinazione;  // JSON text of what leggi_config returns
    int segmento_sec, giorni;
    double spazio_min_gb;
  };
  const Caso casi[] = {
      {"attivo=1, cartella='/srv/nvr', segmento_sec=120, giorni=3, spazio_min_gb=7.5", 1,
       "/srv/nvr", "{}", 120, 3, 7.5},
      // Zero and null read back as the defaults.
      {"segmento_sec=0, giorni=0, spazio_min_gb=0", 0, "", "{}", 300, 14, 2.0},
      {"attivo=NULL, cartella=NULL, destinazione=NULL, segmento_sec=NULL, giorni=NULL, "
       "spazio_min_gb=NULL",
       0, "", "{}", 300, 14, 2.0},
      {"destinazione='non json {'", 0, "", "{}", 300, 14, 2.0},
      {"destinazione='[1, 2]'", 0, "", "[1,2]", 300, 14, 2.0},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.aggiornamento);
    h.sql("DELETE FROM nvr_config; INSERT INTO nvr_config (id) VALUES (1)");
    if (*c.aggiornamento) h.sql(std::string("UPDATE nvr_config SET ") + c.aggiornamento);
    Config cfg = leggi_config();
    EXPECT_EQ(cfg.attivo, c.attivo);
    EXPECT_EQ(cfg.cartella, c.cartella);
    EXPECT_EQ(cfg.destinazione.dump(), c.destinazione);
    EXPECT_EQ(cfg.segmento_sec, c.segmento_sec);
    EXPECT_EQ(cfg.giorni, c.giorni);
    EXPECT_DOUBLE_EQ(cfg.spazio_min_gb, c.spazio_min_gb);
  }
  h.sql("DELETE FROM nvr_config");
  Config senza_riga = leggi_config();
  EXPECT_EQ(senza_riga.come_json(), Config().come_json());
}

TEST_F(ConfigTest, CamerasMergeHostTableWithSettings) {
  h.aggiungi_camera(9, "Giardino", "rtsp://10.0.0.9/s1");
  h.aggiungi_camera(7, "", "");
  h.aggiungi_camera(8, "Garage", "rtsp://10.0.0.8/s1");
  h.sql("UPDATE tapo_cameras SET rtsp_url=NULL WHERE id=7");
  h.sql(
      "INSERT INTO nvr_camere VALUES (8, 1, 'manuale', 'non json', '{\"a\": 1}', NULL);"
      "INSERT INTO nvr_camere VALUES (9, 0, 'eventi', '[{\"da\": \"08:00\", \"a\": \"12:00\"}]', "
      "'[\"binary_sensor.porta\"]', 0);"
      "INSERT INTO nvr_camere VALUES (44, 1, 'sempre', '[]', '[]', 10);");

  std::vector<Camera> cams = _telecamere();
  ASSERT_EQ(cams.size(), 3u);  // the settings of camera 44, unknown to the host, are ignored
  // No name, a null URL and no settings row.
  Camera sette;
  sette.id = 7;
  sette.nome = "Telecamera 7";
  EXPECT_EQ(cams[0].come_json(), sette.come_json());

  const Camera& otto = cams[1];
  EXPECT_TRUE(otto.attiva);
  EXPECT_EQ(otto.modo, "sempre");  // an unknown mode
  EXPECT_EQ(otto.orari, Json::array());   // not JSON
  EXPECT_EQ(otto.eventi, Json::array());  // JSON, but not a list
  EXPECT_EQ(otto.post_roll, 30);          // null

  const Camera& nove = cams[2];
  EXPECT_EQ(nove.url, "rtsp://10.0.0.9/s1");
  EXPECT_EQ(nove.modo, "eventi");
  EXPECT_EQ(nove.orari, Json::parse(R"([{"da": "08:00", "a": "12:00"}])"));
  EXPECT_EQ(nove.eventi, Json::parse(R"(["binary_sensor.porta"])"));
  EXPECT_EQ(nove.post_roll, 0);  // a stored 0 is kept here (only null takes the default)
}

TEST_F(ConfigTest, CameraSettingsAreNormalisedOnSave) {
  h.aggiungi_camera(3, "Ingresso", "rtsp://x");
  struct Caso {
    const char* imp;
    const char* riga;  // attiva|modo|orari|eventi|post_roll as stored
  };
  const Caso casi[] = {
      {R"({})", "0|sempre|[]|[]|30"},
      {R"({"attiva": true, "modo": "orari", "post_roll": 0})", "1|orari|[]|[]|30"},
      {R"({"attiva": "si", "modo": "manuale", "post_roll": 5000})", "1|sempre|[]|[]|3600"},
      {R"({"attiva": 0, "post_roll": -5})", "0|sempre|[]|[]|0"},
      {R"({"attiva": [], "post_roll": "45"})", "0|sempre|[]|[]|45"},
      {R"({"attiva": "", "post_roll": 12.9})", "0|sempre|[]|[]|12"},
      {R"({"post_roll": 1e30})", "0|sempre|[]|[]|3600"},
      {R"({"orari": [{"da": "08:00", "a": "12:00", "giorni": [0, 1]}, {"da": "09:00"},
                     "22:00-06:00", {"da": "", "a": "10:00"}]})",
       R"(0|sempre|[{"da": "08:00", "a": "12:00", "giorni": [0, 1]}]|[]|30)"},
      {R"({"orari": "08:00-12:00", "eventi": "binary_sensor.x"})", "0|sempre|[]|[]|30"},
      {R"({"eventi": ["", "binary_sensor.porta", null, 5, 0]})",
       R"(0|sempre|[]|["binary_sensor.porta", "5"]|30)"},
      // Accents: kept as they are in the schedule, escaped in the entity list.
      {R"({"modo": "eventi", "orari": [{"da": "08:00", "a": "09:00", "nota": "caffè"}],
           "eventi": ["sensor.attività"]})",
       R"(0|eventi|[{"da": "08:00", "a": "09:00", "nota": "caffè"}]|["sensor.attivit\u00e0"]|30)"},
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.imp);
    _salva_camera(3, Json::parse(c.imp));
    EXPECT_EQ(testo("SELECT attiva || '|' || modo || '|' || orari || '|' || eventi || '|' || "
                    "post_roll FROM nvr_camere WHERE cam_id=3"),
              c.riga);
  }
  // A text that is no number is web/api_config_test.cc's (through the API, saving nothing).
  EXPECT_THROW(_salva_camera(3, Json::parse(R"({"post_roll": [1]})")), std::invalid_argument);

  // Settings of a camera the host does not know are stored all the same.
  _salva_camera(123, Json::parse(R"({"attiva": 1})"));
  EXPECT_EQ(testo("SELECT COUNT(*) FROM nvr_camere WHERE cam_id=123"), "1");
}

}  // namespace
}  // namespace nvr
