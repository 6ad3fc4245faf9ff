// The recorders against Debian's ffmpeg and a live RTSP camera on 127.0.0.1.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>

#include "archive/indice.h"
#include "core/tempo.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/azzera.h"
#include "testing/camera_rtsp.h"
#include "testing/processi.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::VariabileDiProva;

double secondi_da(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// The segment files of folder `cartella`, sorted by name (that is, by start time).
std::vector<std::string> spezzoni(const std::string& cartella) {
  std::vector<std::string> nomi;
  std::error_code ec;
  for (const auto& voce : fs::directory_iterator(cartella, ec))
    nomi.push_back(voce.path().filename().string());
  std::sort(nomi.begin(), nomi.end());
  return nomi;
}

// Polls `fatto` every 50 ms for up to `secondi`.
template <class F>
bool entro(double secondi, F fatto) {
  auto t0 = std::chrono::steady_clock::now();
  while (!fatto()) {
    if (secondi_da(t0) > secondi) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

std::shared_ptr<Processo> processo_di(CamId cid) {
  std::optional<Registratore> r = registratore_di(cid);
  return r ? r->proc : nullptr;
}

class RegistratoriE2eTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { camera_ = testing::CameraRtsp::avvia(&motivo_); }
  static void TearDownTestSuite() { camera_.reset(); }

  void SetUp() override {
    azzera_stato_per_test();
    if (!ffmpeg_presente()) GTEST_SKIP() << "ffmpeg non installato";
    if (!camera_) GTEST_SKIP() << "telecamera RTSP di prova non avviata: " << motivo_;
    cfg_.cartella = tmp_ / "archivio";
  }
  void TearDown() override {
    _ferma_tutto();
    azzera_stato_per_test();
  }

  Camera camera(CamId id, const std::string& nome, const std::string& url) {
    return {.id = id, .nome = nome, .url = url, .attiva = true};
  }

  static inline std::unique_ptr<testing::CameraRtsp> camera_;
  static inline std::string motivo_;
  CartellaTemporanea tmp_;
  VariabileDiProva tmpdir_{"TMPDIR", tmp_.percorso()};
  Config cfg_;
};

// Three recorders of the live camera, then shutdown, a request thread and the engine's reaping
// at the same time: each recorder is stopped once, by SIGINT, none is taken for a failure, and
// every one leaves complete files. That the segment open at a stop gets its index is
// autonomo/registrazione_e2e_test.cc's CtrlCFinalisesTheLastSegmentAndExitsZero; that the files
// play, python/test_arresto.py and the reliability suite's ffprobe check.
TEST_F(RegistratoriE2eTest, RecordThenStopAllWhileOthersStopAndReap) {
  cfg_.segmento_sec = 2;
  const std::vector<Camera> cams = {camera(21, "Uno", camera_->url()),
                                    camera(22, "Due", camera_->url()),
                                    camera(23, "Tre", camera_->url())};
  const std::string cart = tmp_ / "archivio/Uno/in_corso";
  const double t0 = _ora();
  std::vector<pid_t> pid;
  for (const auto& c : cams) {
    EXPECT_EQ(_avvia(cfg_, c, "continua", cams), std::make_pair(true, std::string()));
    auto proc = processo_di(c.id);
    pid.push_back(proc ? proc->pid() : 0);
  }
  ASSERT_NE(pid[0], 0);
  // posix_spawn returns as soon as the exec has replaced the memory, a moment before the
  // kernel publishes the new argument list.
  entro(2, [&] { return !testing::riga_di_comando(pid[0]).empty(); });
  EXPECT_EQ(testing::riga_di_comando(pid[0]),
            argomenti_ffmpeg(camera_->url(), 2, cart, _ffmpeg_major()));

  // Three files: at least two segments are closed and the third is being written.
  ASSERT_TRUE(entro(30, [&] { return spezzoni(cart).size() >= 3; }))
      << "spezzoni: " << spezzoni(cart).size() << ", log: " << _ultima_riga_log(21);
  for (const auto& c : cams) {
    std::string cartella = tmp_ / ("archivio/" + c.nome + "/in_corso");
    ASSERT_TRUE(entro(20, [&] { return !spezzoni(cartella).empty(); })) << c.nome;
  }
  // Named by local start time.
  const std::string primo = formatta(scomponi(t0 - 2, nullptr), "%Y%m%d_%H%M%S.mp4");
  for (const auto& s : spezzoni(cart)) {
    EXPECT_EQ(s.size(), primo.size()) << s;
    EXPECT_GE(s, primo);
    EXPECT_LE(s, formatta(scomponi(_ora() + 2, nullptr), "%Y%m%d_%H%M%S.mp4"));
  }

  ::testing::internal::CaptureStdout();
  std::atomic<bool> fine = false;
  auto t1 = std::chrono::steady_clock::now();
  std::thread motore([&] {
    while (!fine) {
      _controlla_processi();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::thread richiesta([] { _ferma(22, "telecamera rimossa"); });
  _ferma_tutto("arresto del server");
  const double durata = secondi_da(t1);
  richiesta.join();
  fine = true;
  motore.join();
  std::string uscita = ::testing::internal::GetCapturedStdout();
  std::printf("tre registratori fermati in %.3f s\n", durata);
  EXPECT_LT(durata, 20.0);  // each ended by itself, none waited out to the SIGKILL deadline

  for (const char* riga : {"[NVR] registrazione telecamera 21 fermata (arresto del server)\n",
                           "[NVR] registrazione telecamera 23 fermata (arresto del server)\n"}) {
    auto p = uscita.find(riga);
    EXPECT_NE(p, std::string::npos) << riga;
    if (p != std::string::npos) uscita.erase(p, std::strlen(riga));
  }
  // Camera 22 is stopped by whichever thread takes it first, and only by that one.
  EXPECT_TRUE(uscita == "[NVR] registrazione telecamera 22 fermata (arresto del server)\n" ||
              uscita == "[NVR] registrazione telecamera 22 fermata (telecamera rimossa)\n")
      << uscita;
  EXPECT_TRUE(registratori_in_corso().empty());
  EXPECT_TRUE(errori_recenti().empty());
  for (pid_t p : pid) EXPECT_TRUE(testing::attendi_sparito(p, 5)) << p;
  for (const auto& c : cams) {
    std::string cartella = tmp_ / ("archivio/" + c.nome + "/in_corso");
    for (const auto& s : spezzoni(cartella)) EXPECT_TRUE(_mp4_completo(cartella + "/" + s)) << s;
  }
  EXPECT_EQ(_ultima_riga_log(21), "");  // nothing went wrong
}

}  // namespace
}  // namespace nvr
