#include "web/api_registrazioni.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "archive/allineamento.h"
#include "archive/selezione.h"
#include "core/config.h"
#include "core/db.h"
#include "core/stato.h"
#include "testing/ambiente.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::HostDiProva;

constexpr double kMaggio = 1714521600.0;  // 2024-05-01 00:00:00 UTC

class RegistrazioniTest : public ::testing::Test {
 protected:
  void SetUp() override {
    h.imposta_zona("Europe/Rome");
    _init_db();
    h.aggiungi_camera(1, "Garage", "rtsp://x/1");
    h.aggiungi_camera(3, "Orto", "rtsp://x/3");
    Config cfg;
    cfg.cartella = archivio;
    _salva_config(cfg);
  }
  std::int64_t riga(CamId cam, double inizio, double fine, const std::string& nome,
                    std::int64_t dimensione = 1234567, bool con_file = true) {
    std::string file = archivio + "/" + nome;
    if (con_file)
      testing::scrivi_file(file, std::string(static_cast<std::size_t>(dimensione), 'x'));
    Connessione c = _db();
    c.esegui(
        "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) VALUES "
        "(?,?,?,?,?,?)",
        {cam, inizio, fine, file, dimensione, std::string("orario")});
    c.commit();
    return come_intero(c.righe("SELECT MAX(id) FROM nvr_registrazioni")[0][0]);
  }

  Risposta chiama(Risposta (*f)(const Richiesta&), std::map<std::string, std::string> query,
                  std::optional<std::int64_t> rid = std::nullopt) {
    Richiesta r;
    r.metodo = "GET";
    r.query = std::move(query);
    r.rid = rid;
    return f(r);
  }

  HostDiProva h;
  testing::CartellaTemporanea t;
  std::string archivio = t / "archivio";
};

// Days of 23 and 25 hours are core/tempo_test.cc's; here the day is the host's (Rome), not UTC.
TEST_F(RegistrazioniTest, OneCamerasDay) {
  const double mezzanotte = 1714514400;  // 2024-05-01 00:00 in Rome
  riga(1, mezzanotte - 60, mezzanotte + 60, "Garage/2024-04-30/23-59-00.mp4");
  riga(1, mezzanotte + 3600, mezzanotte + 3899.5, "Garage/2024-05-01/01-00-00.mp4");
  riga(1, mezzanotte + 7200, mezzanotte + 7500, "Garage/2024-05-01/02-00-00.mp4", 10, false);
  Risposta r = chiama(api_registrazioni, {{"cam", "1"}, {"giorno", "2024-05-01"}});
  ASSERT_EQ(r.status, 200);
  EXPECT_EQ(r.corpo["archivio_ok"], true);
  // The segment across midnight is listed with its real start; the one whose file is gone is not.
  ASSERT_EQ(r.corpo["registrazioni"].size(), 2u);
  EXPECT_EQ(r.corpo["registrazioni"][0]["inizio"], mezzanotte - 60);
  EXPECT_EQ(r.corpo["registrazioni"][1]["durata"], 300);  // 299.5 rounds to the even neighbour

  // With the archive gone, rows are listed as they are and the answer says so.
  fs::rename(archivio, t / "via");
  azzera_allineamento_per_test();
  Risposta senza = chiama(api_registrazioni, {{"cam", "1"}, {"giorno", "2024-05-01"}});
  EXPECT_EQ(senza.corpo["archivio_ok"], false);
  EXPECT_EQ(senza.corpo["registrazioni"].size(), 3u);
}

// A camera that is no number and an impossible date are python/test_collega.py's rows.
TEST_F(RegistrazioniTest, DayThatIsAPathIsRefused) {
  Risposta r = chiama(api_registrazioni, {{"giorno", "../../etc"}});
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(r.corpo, (Json{{"status", "error"}, {"message", "Giorno non valido"}}));
}

TEST_F(RegistrazioniTest, VideoIsServedOrNotFound) {
  std::int64_t id = riga(1, kMaggio, kMaggio + 60, "Garage/2024-05-01/02-00-00.mp4", 5000);
  std::int64_t via = riga(1, kMaggio, kMaggio + 60, "Garage/2024-05-01/03-00-00.mp4", 10, false);
  std::int64_t cartella = riga(1, kMaggio, kMaggio + 60, "cartella.mp4", 10, false);
  fs::create_directories(archivio + "/cartella.mp4");  // not a regular file
  for (auto rid : {std::optional<std::int64_t>(9999), std::optional<std::int64_t>(via),
                   std::optional<std::int64_t>(cartella), std::optional<std::int64_t>()}) {
    Risposta r = chiama(api_video, {}, rid);
    EXPECT_EQ(r.status, 404);
    EXPECT_EQ(r.corpo, (Json{{"status", "error"}, {"message", "Registrazione non trovata"}}));
  }
  Risposta r = chiama(api_video, {{"scarica", "1"}}, id);
  ASSERT_TRUE(r.file);
  EXPECT_EQ(r.file->percorso, archivio + "/Garage/2024-05-01/02-00-00.mp4");
  EXPECT_TRUE(r.file->allegato);
}

// A segment served once is answered from memory, and a change to the index shows at once: a file
// moved by the index, a deleted row whose file stayed.
TEST_F(RegistrazioniTest, VideoFromMemoryFollowsTheIndex) {
  const std::int64_t id = riga(1, kMaggio, kMaggio + 60, "Garage/b.mp4");
  testing::scrivi_file(archivio + "/Garage/c.mp4", "x");
  const std::vector<std::pair<std::function<void()>, std::string>> passi = {
      {[] {}, archivio + "/Garage/b.mp4"},
      {[&] {
         Connessione c = _db();
         c.esegui("UPDATE nvr_registrazioni SET file=? WHERE id=?",
                  {archivio + "/Garage/c.mp4", id});
         c.commit();
       },
       archivio + "/Garage/c.mp4"},
      {[&] { cancella_registrazione(id); }, ""}};
  for (const auto& [cambia, atteso] : passi) {
    cambia();
    Risposta r = chiama(api_video, {}, id);
    EXPECT_EQ(r.file ? r.file->percorso : "", atteso);
    Richiesta x;
    x.rid = id;
    std::optional<Risposta> subito = api_video_subito(x);
    EXPECT_EQ(subito ? subito->file->percorso : "", atteso);
  }
}

}  // namespace
}  // namespace nvr
