// The whole loop through the test host, with the real camera and the real ffmpeg: switching on,
// recording, indexing, listing, and the reasons to stop a recorder that only the engine has.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "archive/indice.h"
#include "core/config.h"
#include "core/db.h"
#include "core/processo.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "testing/camera_rtsp.h"
#include "testing/host_web.h"
#include "testing/processi.h"
#include "web/collega.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using testing::HostWeb;

bool attendi(const std::function<bool()>& condizione, double secondi) {
  auto fine = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondi);
  while (std::chrono::steady_clock::now() < fine) {
    if (condizione()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return condizione();
}

std::optional<Registratore> registratore(CamId id) {
  std::lock_guard l(_lock);
  auto it = _processi.find(id);
  if (it == _processi.end()) return std::nullopt;
  return it->second;
}

// The pids of the recorders (of any server) writing below `cartella`.
std::vector<pid_t> ffmpeg_in(const std::string& cartella) {
  std::vector<pid_t> trovati;
  for (const auto& voce : fs::directory_iterator("/proc")) {
    std::string nome = voce.path().filename();
    if (nome.find_first_not_of("0123456789") != std::string::npos) continue;
    auto riga = testing::riga_di_comando(std::stoi(nome));
    if (riga.empty() || riga[0] != "ffmpeg") continue;
    if (riga.back().rfind(cartella, 0) == 0) trovati.push_back(std::stoi(nome));
  }
  return trovati;
}

class MotoreE2eTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!ffmpeg_presente()) GTEST_SKIP() << "ffmpeg non installato";
    std::string motivo;
    camera = testing::CameraRtsp::avvia(&motivo);
    if (!camera) GTEST_SKIP() << "telecamera di prova non disponibile: " << motivo;
  }
  void TearDown() override {
    arresta_motore();
    attendi_fine_motore();
    _ferma_tutto("fine prova");
    if (catturo) log = ::testing::internal::GetCapturedStdout();
  }
  // Attaches the host, with the archive in a temporary folder (saved directly: the API only
  // accepts folders under the usual roots) and segments of `segmento` seconds.
  void aggancia(int segmento) {
    ::testing::internal::CaptureStdout();
    catturo = true;
    ASSERT_TRUE(collega(h.host));
    Config cfg;
    cfg.cartella = archivio;
    _salva_config(cfg);
    segmento_ = segmento;
  }
  // The API clamps the segment length to a minute; tests want seconds.
  void segmenti_corti() {
    h.sql("UPDATE nvr_config SET segmento_sec=" + std::to_string(segmento_));
    _giro_sicuro();
  }
  std::string fine_log() {
    if (catturo) log = ::testing::internal::GetCapturedStdout();
    catturo = false;
    return log;
  }

  std::unique_ptr<testing::CameraRtsp> camera;
  HostWeb h;
  testing::CartellaTemporanea t;
  std::string archivio = t / "archivio";
  bool catturo = false;
  std::string log;
  int segmento_ = 2;
};

TEST_F(MotoreE2eTest, SwitchOnRecordIndexListAndTheEnginesStops) {
  h.aggiungi_camera(1, "Ingresso", camera->url());
  aggancia(2);
  auto r = h.post("/api/nvr/camera", Json{{"id", 1}, {"attiva", true}, {"modo", "sempre"}});
  ASSERT_EQ(r.status, 200) << r.corpo;
  EXPECT_EQ(r.json["telecamere"][0]["attiva"], true);
  r = h.post("/api/nvr/config", Json{{"attivo", 1}});
  ASSERT_EQ(r.status, 200) << r.corpo;
  auto sveglia = std::chrono::steady_clock::now();
  segmenti_corti();

  ASSERT_TRUE(attendi([] { return registratore(1).has_value(); }, 15));
  double dopo = std::chrono::duration<double>(std::chrono::steady_clock::now() - sveglia).count();
  EXPECT_LT(dopo, 8.0) << "il registratore parte entro un giro dal risveglio";
  Json stato = h.get("/api/nvr/stato").json;
  EXPECT_EQ(stato["telecamere"][0]["registrando"], true);
  EXPECT_EQ(stato["telecamere"][0]["motivo"], "continua");
  EXPECT_EQ(registratore(1)->cartella, archivio + "/Ingresso/in_corso");

  // Finished segments are filed and listed after they are 15 s old.
  Json lista;
  ASSERT_TRUE(attendi(
      [&] {
        lista = h.get("/api/nvr/registrazioni?cam=1").json;
        return lista["registrazioni"].size() >= 2;
      },
      70))
      << lista;
  const Json& prima = lista["registrazioni"][0];
  std::int64_t id = prima["id"];
  EXPECT_EQ(prima["motivo"], "continua");
  EXPECT_GE(prima["durata"].get<double>(), 1.0);
  std::string file;
  {
    Connessione c = _db();
    file = come_testo(c.righe("SELECT file FROM nvr_registrazioni WHERE id=?", {id})[0][0]);
  }
  EXPECT_THAT(file,
              ::testing::MatchesRegex(archivio + "/Ingresso/[0-9]{4}-[0-9]{2}-[0-9]{2}/"
                                                 "[0-9]{2}-[0-9]{2}-[0-9]{2}(_[0-9]+)?\\.mp4"));
  EXPECT_TRUE(_mp4_completo(file));

  // A new segment length restarts the recorder.
  h.sql("UPDATE nvr_config SET segmento_sec=3");
  _giro_sicuro();
  ASSERT_TRUE(attendi(
      [] {
        auto p = registratore(1);
        return p && p->segmento == 3;
      },
      10));

  // Renaming the camera moves its folder: restarted in the same pass, the old folder remembered.
  h.sql("UPDATE tapo_cameras SET name='Portone' WHERE id=1");
  _giro_sicuro();
  ASSERT_TRUE(attendi(
      [&] {
        auto p = registratore(1);
        return p && p->cartella == archivio + "/Portone/in_corso";
      },
      10));
  {
    std::lock_guard l(_lock);
    EXPECT_EQ(_in_corso_precedenti[1].count(archivio + "/Ingresso/in_corso"), 1u);
  }

  // A camera the host removed is stopped at the next pass.
  h.sql("DELETE FROM tapo_cameras WHERE id=1");
  _giro_sicuro();
  ASSERT_TRUE(attendi([] { return !registratore(1).has_value(); }, 25));
  // The record goes before the recorder has finished stopping; the line comes at the end of the pass.
  { std::lock_guard fine_giro(_giro_lock); }

  std::string tutto = fine_log();
  for (const char* riga :
       {"[NVR] Ingresso: registrazione avviata (continua)\n",
        "[NVR] registrazione telecamera 1 fermata (nuova durata degli spezzoni)\n",
        "[NVR] registrazione telecamera 1 fermata (cartella cambiata)\n",
        "[NVR] Portone: registrazione avviata (continua)\n",
        "[NVR] registrazione telecamera 1 fermata (telecamera rimossa)\n"})
    EXPECT_THAT(tutto, HasSubstr(riga));
}

TEST_F(MotoreE2eTest, ACameraThatDoesNotAnswerBacksOff) {
  int chiusa = testing::porta_libera();
  h.aggiungi_camera(2, "Spenta", "rtsp://127.0.0.1:" + std::to_string(chiusa) + "/cam");
  aggancia(2);
  _salva_camera(2, Json{{"attiva", true}});
  h.sql("UPDATE nvr_config SET attivo=1");
  _giro_sicuro();

  Json stato;
  ASSERT_TRUE(attendi(
      [&] {
        stato = h.get("/api/nvr/stato").json;
        return !stato["telecamere"][0]["errore"].get<std::string>().empty();
      },
      30));
  EXPECT_THAT(stato["telecamere"][0]["errore"].get<std::string>(), HasSubstr("refused"));

  // Each failure is followed by a pause of 5 s times the failures so far.
  std::vector<ErroreRecente> visti;
  ASSERT_TRUE(attendi(
      [&] {
        std::lock_guard l(_lock);
        auto it = _errori_recenti.find(2);
        if (it != _errori_recenti.end() && (visti.empty() || visti.back().n != it->second.n))
          visti.push_back(it->second);
        return visti.size() >= 3;
      },
      60));
  for (std::size_t i = 1; i < visti.size(); ++i) {
    double pausa = visti[i].ts - visti[i - 1].ts;
    EXPECT_GE(pausa, 5.0 * visti[i - 1].n) << "dopo il guasto " << visti[i - 1].n;
    EXPECT_LT(pausa, 5.0 * visti[i - 1].n + 6.0) << "dopo il guasto " << visti[i - 1].n;
  }
  EXPECT_THAT(fine_log(), HasSubstr("[NVR] telecamera 2: ffmpeg terminato: "));
}

// A server process killed with SIGKILL leaves its recorder running in its own session; the next
// start stops it, and the segment it was writing is finalised and filed.
TEST_F(MotoreE2eTest, RecordersLeftByAKilledServerAreStoppedAndTheirSegmentFiled) {
  h.aggiungi_camera(1, "Ingresso", camera->url());
  int log_figlio =
      ::open((t / "figlio.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  auto figlio = avvia_processo({{NVR_BINARI "/server_prova", h.db_file}, log_figlio, log_figlio});
  ::close(log_figlio);
  ASSERT_TRUE(figlio.ok()) << figlio.errore().messaggio;
  auto server = figlio.valore();

  // Once the first server has made its tables, switch recording on for it.
  ASSERT_TRUE(attendi(
      [&] {
        try {
          h.sql("SELECT 1 FROM nvr_config");
          return true;
        } catch (const std::exception&) {
          return false;
        }
      },
      15));
  h.sql("UPDATE nvr_config SET attivo=1, segmento_sec=2, cartella='" + archivio + "'");
  h.sql("INSERT INTO nvr_camere (cam_id, attiva) VALUES (1, 1)");
  std::string in_corso = archivio + "/Ingresso/in_corso";
  auto segmenti = [&] {
    std::vector<std::string> nomi;
    std::error_code ec;
    for (const auto& v : fs::directory_iterator(in_corso, ec)) nomi.push_back(v.path().filename());
    std::sort(nomi.begin(), nomi.end());
    return nomi;
  };
  ASSERT_TRUE(attendi([&] { return segmenti().size() >= 2; }, 30))
      << testing::leggi_file(t / "figlio.log");

  server->segnala(SIGKILL);
  ASSERT_TRUE(server->attendi(5));
  auto rimasti = ffmpeg_in(archivio);
  ASSERT_EQ(rimasti.size(), 1u) << "il registratore sopravvive al server";
  pid_t vecchio = rimasti[0];
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  std::string interrotto = segmenti().back();

  // The next start: the leftover is interrupted before the first pass.
  aggancia(2);
  h.sql("UPDATE nvr_config SET attivo=1, segmento_sec=2, cartella='" + archivio + "'");
  _giro_sicuro();
  ASSERT_TRUE(attendi(
      [&] {
        auto s = testing::stato_processo(vecchio);
        return !s || *s == 'Z';
      },
      20));
  ASSERT_TRUE(attendi([] { return registratore(1).has_value(); }, 20));

  // The interrupted segment is complete and gets filed like any other.
  std::tm quando{};
  ASSERT_TRUE(strptime(interrotto.c_str(), "%Y%m%d_%H%M%S", &quando));
  double inizio = epoch_di(quando, nullptr);
  std::string file;
  ASSERT_TRUE(attendi(
      [&] {
        Connessione c = _db();
        auto righe =
            c.righe("SELECT file FROM nvr_registrazioni WHERE cam_id=1 AND inizio=?", {inizio});
        if (righe.empty()) return false;
        file = come_testo(righe[0][0]);
        return true;
      },
      60));
  EXPECT_FALSE(fs::exists(in_corso + "/" + interrotto));
  EXPECT_TRUE(_mp4_completo(file));
  EXPECT_THAT(fine_log(), HasSubstr("[NVR] ffmpeg rimasti da un avvio precedente: fermati\n"));
}

}  // namespace
}  // namespace nvr
