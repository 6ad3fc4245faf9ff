#include "web/api_elimina.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "archive/allineamento.h"
#include "core/config.h"
#include "core/db.h"
#include "core/processo.h"
#include "core/stato.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/righe_di_prova.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::HostDiProva;

// 2024-05-01 00:00:00 UTC
constexpr double kGiorno = 1714521600.0;

class EliminaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    h.imposta_zona("UTC");
    _init_db();
    h.aggiungi_camera(1, "Garage", "rtsp://x/1");
    h.aggiungi_camera(2, "Orto", "rtsp://x/2");
    Config cfg;
    cfg.cartella = archivio;
    _salva_config(cfg);
    // Two cameras, two days each, and events on both days.
    for (CamId cam : {1, 2})
      for (int d : {1, 2}) {
        std::string file = archivio + (cam == 1 ? "/Garage" : "/Orto") + "/2024-05-0" +
                           std::to_string(d) + "/10-00-00.mp4";
        testing::scrivi_file(file, "v");
        testing::aggiungi_registrazione(cam, kGiorno + (d - 1) * 86400 + 36000, file);
        testing::aggiungi_evento(cam, kGiorno + (d - 1) * 86400 + 3600);
      }
  }

  Risposta elimina(const Json& corpo) {
    Richiesta r;
    r.metodo = "DELETE";
    r.corpo = corpo;
    return api_elimina_registrazioni(r);
  }

  HostDiProva h;
  testing::CartellaTemporanea t;
  std::string archivio = t / "archivio";
};

TEST_F(EliminaTest, BadSelectionsAndAnAbsentArchiveDeleteNothing) {
  const std::pair<const char*, const char*> casi[] = {
      {R"({"tutto": false, "cam": "", "giorno": ""})", "Indica cosa cancellare"},
      {R"({"cam": "-1"})", "Telecamera non valida"},
      {R"({"cam": true, "tutto": true})", "Telecamera non valida"},
      {R"({"giorno": "2024-02-30", "cam": 1})", "Giorno non valido"},
  };
  for (const auto& [corpo, messaggio] : casi) {
    SCOPED_TRACE(corpo);
    Risposta r = elimina(Json::parse(corpo));
    EXPECT_EQ(r.status, 400);
    EXPECT_EQ(r.corpo, (Json{{"status", "error"}, {"message", messaggio}}));
  }
  fs::rename(archivio, t / "altrove");
  azzera_allineamento_per_test();  // look again now
  Risposta r = elimina(Json{{"tutto", true}});
  EXPECT_EQ(r.status, 409);
  EXPECT_EQ(r.corpo["message"], "Unità di archivio non collegata: collegala e riprova.");
  EXPECT_EQ(testing::file_indicizzati().size(), 4u);
  EXPECT_EQ(testing::ts_eventi().size(), 4u);
  EXPECT_TRUE(fs::exists(t / "altrove/Garage/2024-05-01/10-00-00.mp4"));
}

// Which rows a selection picks is the archive's table test; here the files and folders go.
TEST_F(EliminaTest, FilesGoWithTheirEmptiedFoldersNeverTheRoot) {
  Risposta r = elimina(Json{{"cam", "1"}, {"giorno", "2024-05-01"}});
  EXPECT_EQ(r.corpo, (Json{{"status", "success"}, {"voci", 1}, {"file", 1}}));
  EXPECT_FALSE(fs::exists(archivio + "/Garage/2024-05-01"));
  EXPECT_TRUE(fs::exists(archivio + "/Garage/2024-05-02/10-00-00.mp4"));
  r = elimina(Json{{"cam", 2}});
  EXPECT_EQ(r.corpo, (Json{{"status", "success"}, {"voci", 2}, {"file", 2}}));
  EXPECT_FALSE(fs::exists(archivio + "/Orto"));
  EXPECT_TRUE(fs::exists(archivio));

  Richiesta una;
  una.metodo = "DELETE";
  una.rid = 2;  // camera 1's second day: the rows went in as 1 to 4
  EXPECT_EQ(api_elimina_registrazione(una).status, 200);
  EXPECT_FALSE(fs::exists(archivio + "/Garage"));
  EXPECT_EQ(api_elimina_registrazione(una).corpo, (Json{{"status", "success"}}));  // twice is fine
}

TEST_F(EliminaTest, EverythingStopsTheRecordersAndEmptiesTheirFolders) {
  std::string in_corso = archivio + "/Garage/in_corso";
  testing::scrivi_file(in_corso + "/20240503_100000.mp4", "mezzo");
  testing::scrivi_file(in_corso + "/note.txt", "resta");
  auto proc = avvia_processo({{"sleep", "60"}});
  ASSERT_TRUE(proc.ok());
  Registratore finto;
  finto.proc = proc.valore();
  finto.cartella = in_corso;
  adotta_registratore(1, finto);
  ::testing::internal::CaptureStdout();
  Risposta r = elimina(Json{{"tutto", true}});
  std::string log = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(r.corpo, (Json{{"status", "success"}, {"voci", 4}, {"file", 5}}));
  EXPECT_THAT(
      log, ::testing::HasSubstr("[NVR] registrazione telecamera 1 fermata (archivio svuotato)\n"));
  EXPECT_TRUE(proc.valore()->terminato());
  EXPECT_FALSE(fs::exists(in_corso + "/20240503_100000.mp4"));
  EXPECT_TRUE(fs::exists(in_corso + "/note.txt"));  // only segments are removed
  EXPECT_TRUE(giro_richiesto());  // the engine is woken to restart recording
}

}  // namespace
}  // namespace nvr
