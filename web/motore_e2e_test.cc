// The recorders a killed server leaves behind, with the real camera and the real ffmpeg. Switching
// on, recording, indexing and listing through a real host are in python/test_registrazioni.py.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
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
  }

  std::unique_ptr<testing::CameraRtsp> camera;
  HostWeb h;
  testing::CartellaTemporanea t;
  std::string archivio = t / "archivio";
};

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
  auto accendi = [&] {
    try {
      h.sql("UPDATE nvr_config SET attivo=1, segmento_sec=2, cartella='" + archivio + "'");
      return true;
    } catch (const std::exception&) {
      return false;
    }
  };
  ASSERT_TRUE(attendi(accendi, 15));
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
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  std::string interrotto = segmenti().back();

  // The next start: the leftover is interrupted before the first pass.
  ::testing::internal::CaptureStdout();
  ASSERT_TRUE(collega(h.host));
  ASSERT_TRUE(accendi());
  _giro_sicuro();
  bool fermato = attendi(
      [&] {
        auto s = testing::stato_processo(rimasti[0]);
        return !s || *s == 'Z';
      },
      20);
  std::string log = ::testing::internal::GetCapturedStdout();
  ASSERT_TRUE(fermato);
  EXPECT_THAT(log, HasSubstr("[NVR] ffmpeg rimasti da un avvio precedente: fermati\n"));

  // The interrupted segment is complete and gets filed like any other.
  std::tm quando{};
  ASSERT_TRUE(strptime(interrotto.c_str(), "%Y%m%d_%H%M%S", &quando));
  std::string file;
  ASSERT_TRUE(attendi(
      [&] {
        Connessione c = _db();
        auto righe = c.righe("SELECT file FROM nvr_registrazioni WHERE cam_id=1 AND inizio=?",
                             {epoch_di(quando, nullptr)});
        if (!righe.empty()) file = come_testo(righe[0][0]);
        return !righe.empty();
      },
      60));
  EXPECT_FALSE(fs::exists(in_corso + "/" + interrotto));
  EXPECT_TRUE(_mp4_completo(file));
}

}  // namespace
}  // namespace nvr
