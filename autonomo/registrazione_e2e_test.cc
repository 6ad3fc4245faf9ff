// The program recording for real: event cameras driven by pushed states, Ctrl-C, the demo stream
// through run.sh played back with a range. Recording, indexing, playback, SIGTERM and deletion
// under faults are the reliability suite's (tests/reliability/).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "archive/indice.h"
#include "autonomo/programma_di_prova.h"
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

  std::unique_ptr<testing::CameraRtsp> camera;
  testing::CartellaTemporanea t;
  std::string dati = t / "dati";
  std::unique_ptr<Programma> p;
  std::int64_t id = 0;
};

TEST_F(RegistrazioneE2eTest, EventCameraFollowsPushedStates) {
  avvia({{"attiva", true},
         {"modo", "eventi"},
         {"eventi", {"binary_sensor.porta"}},
         {"post_roll", 2}});
  // The states pushed to this host reach the engine (which camera records when is the
  // engine's own table test).
  ASSERT_EQ(p->post("/api/stati", {{"binary_sensor.porta", "Aperto"}}).status, 200);
  ASSERT_TRUE(attendi([&] { return registra(); }, 15)) << p->uscita();
  EXPECT_EQ(p->get("/api/nvr/stato").json["telecamere"][0]["motivo"], "evento");
  EXPECT_EQ(ffmpeg_con(dati).size(), 1u);

  ASSERT_EQ(p->post("/api/stati", {{"binary_sensor.porta", "off"}}).status, 200);
  ASSERT_TRUE(attendi([&] { return !registra(); }, 20)) << p->uscita();
  EXPECT_TRUE(attendi([&] { return ffmpeg_con(dati).empty(); }, 5));
}

TEST_F(RegistrazioneE2eTest, CtrlCFinalisesTheLastSegmentAndExitsZero) {
  avvia({{"attiva", true}, {"modo", "sempre"}}, {"--segmento-prova", "300"});
  ASSERT_TRUE(attendi([&] { return registra(); }, 20)) << p->uscita();
  std::this_thread::sleep_for(std::chrono::seconds(2));  // some frames in the open segment
  p->segnala(SIGINT);
  EXPECT_EQ(p->fine(40), 0) << p->uscita() << p->errori();
  EXPECT_TRUE(ffmpeg_con(dati).empty());
  std::vector<std::string> segmenti;
  for (const auto& v : fs::recursive_directory_iterator(dati + "/archivio"))
    if (v.path().extension() == ".mp4") segmenti.push_back(v.path());
  ASSERT_EQ(segmenti.size(), 1u);
  EXPECT_TRUE(_mp4_completo(segmenti[0])) << segmenti[0];
}

TEST(RunShE2eTest, DemoRecordsOutOfTheBoxAndStopsCleanly) {
  if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
  testing::CartellaTemporanea t;
  const int porta = testing::porta_libera();
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
  // Played back with a range, byte for byte.
  const std::string video = lista["registrazioni"][0]["url"];
  const std::string tutto = p.get(video).corpo;
  auto r = p.get(video, {{"Range", "bytes=100-199"}});
  EXPECT_EQ(r.status, 206);
  EXPECT_TRUE(tutto.size() > 200 && r.corpo == tutto.substr(100, 100));

  const std::string url = p.get("/api/telecamere").json["telecamere"][0]["url"];
  EXPECT_FALSE(ffmpeg_con(url).empty());
  p.segnala(SIGTERM);
  EXPECT_EQ(p.fine(40), 0) << p.uscita() << p.errori();
  EXPECT_TRUE(ffmpeg_con(url).empty()) << "generatore o registratore rimasti dopo l'arresto";
  EXPECT_TRUE(ffmpeg_con(t.percorso()).empty());
}

}  // namespace
}  // namespace nvr::autonomo
