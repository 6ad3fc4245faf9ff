// The program recording for real: the RTSP test camera or the demo stream, recorded, indexed,
// played with ranges, deleted; event cameras driven by pushed states; the stop signals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "archive/indice.h"
#include "autonomo/programma_di_prova.h"
#include "core/db.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "testing/processi.h"

namespace nvr::autonomo {
namespace {

namespace fs = std::filesystem;
using prova::attendi;
using prova::Programma;

// The pids of the ffmpeg processes whose command line mentions `testo`.
std::vector<pid_t> ffmpeg_con(const std::string& testo) {
  std::vector<pid_t> trovati;
  for (const auto& voce : fs::directory_iterator("/proc")) {
    const std::string nome = voce.path().filename();
    if (nome.find_first_not_of("0123456789") != std::string::npos) continue;
    const auto riga = testing::riga_di_comando(std::stoi(nome));
    if (riga.empty() || fs::path(riga[0]).filename() != "ffmpeg") continue;
    for (const auto& a : riga)
      if (a.find(testo) != std::string::npos) trovati.push_back(std::stoi(nome));
  }
  return trovati;
}

// The most recently written segment anywhere below `cartella`, "" when there is none.
std::string ultimo_mp4(const std::string& cartella) {
  std::string ultimo;
  fs::file_time_type quando{};
  std::error_code ec;
  for (const auto& v : fs::recursive_directory_iterator(cartella, ec)) {
    if (v.path().extension() != ".mp4") continue;
    if (ultimo.empty() || v.last_write_time() > quando) {
      ultimo = v.path();
      quando = v.last_write_time();
    }
  }
  return ultimo;
}

class RegistrazioneE2eTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
    std::string motivo;
    camera = testing::CameraRtsp::avvia(&motivo);
    if (!camera) GTEST_SKIP() << "telecamera di prova non disponibile: " << motivo;
  }
  // Starts the program, logs in and adds the test camera with recorder settings `imp`.
  void avvia(const Json& imp, std::vector<std::string> altro = {}) {
    p = Programma::su(dati, altro);
    ASSERT_TRUE(p->pronto()) << p->errori();
    ASSERT_TRUE(p->accedi());
    auto r = p->post("/api/telecamere", {{"nome", "Ingresso"}, {"url", camera->url()}});
    ASSERT_EQ(r.status, 200) << r.corpo;
    id = r.json["id"];
    Json impostazioni = imp;
    impostazioni["id"] = id;
    ASSERT_EQ(p->post("/api/nvr/camera", impostazioni).status, 200);
    ASSERT_EQ(p->post("/api/nvr/config", {{"attivo", 1}}).status, 200);
  }
  bool registra() {
    auto s = p->get("/api/nvr/stato");
    return s.json["telecamere"].size() == 1 && s.json["telecamere"][0]["registrando"] == true;
  }
  // The API clamps the segment length to a minute; these tests want seconds.
  void segmenti_di(int secondi) {
    Connessione c(dati + "/nvr.db");
    c.esegui("UPDATE nvr_config SET segmento_sec=?", {std::int64_t{secondi}});
    c.commit();
  }

  std::unique_ptr<testing::CameraRtsp> camera;
  testing::CartellaTemporanea t;
  std::string dati = t / "dati";
  std::unique_ptr<Programma> p;
  std::int64_t id = 0;
};

TEST_F(RegistrazioneE2eTest, RecordPlayWithRangesAndDelete) {
  avvia({{"attiva", true}, {"modo", "sempre"}});
  segmenti_di(2);  // the next engine pass restarts the recorder with it

  Json lista;
  const std::string elenco = "/api/nvr/registrazioni?cam=" + std::to_string(id);
  ASSERT_TRUE(attendi(
      [&] {
        lista = p->get(elenco).json;
        return !lista["registrazioni"].empty();
      },
      60))
      << lista << p->uscita();
  const std::int64_t rid = lista["registrazioni"][0]["id"];
  std::string file;
  {
    Connessione c(dati + "/nvr.db");
    file = come_testo(c.righe("SELECT file FROM nvr_registrazioni WHERE id=?", {rid})[0][0]);
  }
  EXPECT_EQ(file.rfind(dati + "/archivio/Ingresso/", 0), 0u) << file;
  const std::string intero = testing::leggi_file(file);
  ASSERT_GT(intero.size(), 100u);
  const std::string video = "/api/nvr/video/" + std::to_string(rid);

  auto r = p->get(video, {{"Range", "bytes=0-99"}});
  EXPECT_EQ(r.status, 206);
  EXPECT_TRUE(r.corpo == intero.substr(0, 100)) << "byte diversi dal file";
  EXPECT_EQ(r.intestazione("Content-Range"), "bytes 0-99/" + std::to_string(intero.size()));
  const std::string etag = r.intestazione("ETag");
  ASSERT_FALSE(etag.empty());

  r = p->get(video, {{"If-None-Match", etag}});
  EXPECT_EQ(r.status, 304);
  EXPECT_TRUE(r.corpo.empty());

  r = p->elimina("/api/nvr/registrazione/" + std::to_string(rid));
  EXPECT_EQ(r.status, 200) << r.corpo;
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(p->get(video).status, 404);
  const auto dopo = p->get(elenco);  // kept alive: the loop below reads into it
  ASSERT_EQ(dopo.status, 200) << dopo.corpo;
  for (const Json& reg : dopo.json["registrazioni"]) EXPECT_NE(reg["id"], rid);
}

TEST_F(RegistrazioneE2eTest, EventCameraFollowsPushedStates) {
  avvia({{"attiva", true},
         {"modo", "eventi"},
         {"eventi", {"binary_sensor.porta"}},
         {"post_roll", 2}});
  p->post("/api/stati", {{"binary_sensor.porta", "off"}});
  std::this_thread::sleep_for(std::chrono::seconds(5));  // a couple of passes see it off
  EXPECT_FALSE(registra());

  ASSERT_EQ(p->post("/api/stati", {{"binary_sensor.porta", "Aperto"}}).status, 200);
  ASSERT_TRUE(attendi([&] { return registra(); }, 15)) << p->uscita();
  EXPECT_EQ(p->get("/api/nvr/stato").json["telecamere"][0]["motivo"], "evento");
  EXPECT_EQ(ffmpeg_con(dati).size(), 1u);

  ASSERT_EQ(p->post("/api/stati", {{"binary_sensor.porta", "off"}}).status, 200);
  ASSERT_TRUE(attendi([&] { return !registra(); }, 20)) << p->uscita();
  EXPECT_TRUE(attendi([&] { return ffmpeg_con(dati).empty(); }, 5));

  // Both changes were kept as events of the camera, in the recorder's own words.
  Connessione c(dati + "/nvr.db");
  auto righe = c.righe("SELECT entity_id, stato FROM nvr_eventi WHERE cam_id=? ORDER BY ts", {id});
  ASSERT_EQ(righe.size(), 2u);
  EXPECT_EQ(come_testo(righe[0][1]), "on");
  EXPECT_EQ(come_testo(righe[1][1]), "off");
}

TEST_F(RegistrazioneE2eTest, StopSignalsFinaliseTheLastSegmentAndExitZero) {
  for (int segnale : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(strsignal(segnale));
    fs::remove_all(dati);
    avvia({{"attiva", true}, {"modo", "sempre"}}, {"--segmento-prova", "300"});
    ASSERT_TRUE(attendi([&] { return registra(); }, 20)) << p->uscita();
    std::this_thread::sleep_for(std::chrono::seconds(4));  // some frames in the open segment
    p->segnala(segnale);
    EXPECT_EQ(p->fine(40), 0) << p->uscita() << p->errori();
    EXPECT_THAT(p->uscita(), ::testing::HasSubstr("fermata (arresto del server)"));
    EXPECT_TRUE(ffmpeg_con(dati).empty());
    const std::string ultimo = ultimo_mp4(dati + "/archivio");
    ASSERT_FALSE(ultimo.empty());
    EXPECT_TRUE(_mp4_completo(ultimo)) << ultimo;
    p.reset();
  }
}

TEST(RunShE2eTest, DemoRecordsOutOfTheBoxAndStopsCleanly) {
  if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
  testing::CartellaTemporanea t;
  const int porta = testing::porta_libera();
  const auto partenza = std::chrono::steady_clock::now();
  // run.sh installs nothing here (all present), builds nothing (up to date) and runs the program
  // from the caller's folder.
  Programma p({"bash", "-c", "cd \"$1\" && shift && NVR_BUILD=\"$0\" exec bash \"$@\"", NVR_BINARI,
               t.percorso(), std::string(NVR_SORGENTI) + "/scripts/run.sh", "--demo", "--porta",
               std::to_string(porta), "--segmento-prova", "2"},
              true);
  p.imposta_porta(porta);
  ASSERT_TRUE(p.pronto(300)) << p.uscita() << p.errori();
  EXPECT_TRUE(fs::exists(t / "nvr-dati/nvr.db"));
  ASSERT_TRUE(p.accedi());
  Json lista;
  ASSERT_TRUE(attendi(
      [&] {
        lista = p.get("/api/nvr/registrazioni?cam=1").json;
        return !lista["registrazioni"].empty();
      },
      90))
      << lista << p.uscita();
  const double secondi =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - partenza).count();
  RecordProperty("secondi_prima_registrazione", std::to_string(secondi));
  std::printf("prima registrazione indicizzata dopo %.1f s dall'avvio di run.sh\n", secondi);
  EXPECT_EQ(p.get("/api/telecamere").json["telecamere"][0]["nome"], "Demo");

  const std::string url = p.get("/api/telecamere").json["telecamere"][0]["url"];
  EXPECT_FALSE(ffmpeg_con(url).empty());
  p.segnala(SIGTERM);
  EXPECT_EQ(p.fine(40), 0) << p.uscita() << p.errori();
  EXPECT_TRUE(ffmpeg_con(url).empty()) << "generatore o registratore rimasti dopo l'arresto";
  EXPECT_TRUE(ffmpeg_con(t.percorso()).empty());
}

}  // namespace
}  // namespace nvr::autonomo
