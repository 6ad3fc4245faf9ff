// The recorders against Debian's ffmpeg and a live RTSP camera on 127.0.0.1.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>

#include "core/tempo.h"
#include "engine/registratori.h"
#include "storage/comando.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "testing/processi.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::leggi_file;
using testing::VariabileDiProva;
using Argomenti = std::vector<std::string>;

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

// A complete MP4: its index is written and ffprobe reads a positive duration from it.
void controlla_mp4(const std::string& percorso) {
  SCOPED_TRACE(percorso);
  EXPECT_NE(leggi_file(percorso).find("moov"), std::string::npos);
  RisultatoComando r = _comando({"ffprobe", "-v", "error", "-show_entries", "format=duration",
                                 "-of", "default=noprint_wrappers=1:nokey=1", percorso},
                                20);
  EXPECT_EQ(r.codice, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_GT(std::atof(r.out.c_str()), 0.0) << r.out;
}

std::shared_ptr<Processo> processo_di(CamId cid) {
  std::lock_guard l(_lock);
  auto it = _processi.find(cid);
  return it == _processi.end() ? nullptr : it->second.proc;
}

class RegistratoriE2eTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { camera_ = testing::CameraRtsp::avvia(&motivo_); }
  static void TearDownTestSuite() { camera_.reset(); }

  void SetUp() override {
    azzera_stato_per_test();
    if (!ffmpeg_presente()) GTEST_SKIP() << "ffmpeg non installato";
    if (!programma_presente("ffprobe")) GTEST_SKIP() << "ffprobe non installato";
    if (!camera_) GTEST_SKIP() << "telecamera RTSP di prova non avviata: " << motivo_;
    cfg_.cartella = tmp_ / "archivio";
  }
  void TearDown() override {
    _ferma_tutto();
    azzera_stato_per_test();
  }

  Camera camera(CamId id, const std::string& nome, const std::string& url) {
    Camera c;
    c.id = id;
    c.nome = nome;
    c.url = url;
    c.attiva = true;
    return c;
  }

  static inline std::unique_ptr<testing::CameraRtsp> camera_;
  static inline std::string motivo_;
  CartellaTemporanea tmp_;
  VariabileDiProva tmpdir_{"TMPDIR", tmp_.percorso()};
  Config cfg_;
};

TEST_F(RegistratoriE2eTest, RecordsSegmentsAndFinalisesTheLastOneOnStop) {
  cfg_.segmento_sec = 2;
  const std::string cart = tmp_ / "archivio/Ingresso/in_corso";
  const double t0 = _ora();
  ::testing::internal::CaptureStdout();
  ASSERT_EQ(_avvia(cfg_, camera(11, "Ingresso", camera_->url()), "continua"),
            std::make_pair(true, std::string()));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] Ingresso: registrazione avviata (continua)\n");
  auto proc = processo_di(11);
  ASSERT_TRUE(proc);
  const pid_t pid = proc->pid();
  proc.reset();

  const Argomenti attesi = {"ffmpeg",
                            "-nostdin",
                            "-hide_banner",
                            "-loglevel",
                            "error",
                            "-y",
                            "-rtsp_transport",
                            "tcp",
                            _ffmpeg_major() < 5 ? "-stimeout" : "-timeout",
                            "5000000",
                            "-i",
                            camera_->url(),
                            "-map",
                            "0:v:0",
                            "-c:v",
                            "copy",
                            "-an",
                            "-f",
                            "segment",
                            "-segment_time",
                            "2",
                            "-segment_format",
                            "mp4",
                            "-reset_timestamps",
                            "1",
                            "-strftime",
                            "1",
                            cart + "/%Y%m%d_%H%M%S.mp4"};
  // posix_spawn returns as soon as the exec has replaced the memory, a moment before the
  // kernel publishes the new argument list.
  entro(2, [&] { return !testing::riga_di_comando(pid).empty(); });
  EXPECT_EQ(testing::riga_di_comando(pid), attesi);

  // Three files: at least two segments are closed and the third is being written.
  ASSERT_TRUE(entro(30, [&] { return spezzoni(cart).size() >= 3; }))
      << "spezzoni: " << spezzoni(cart).size() << ", log: " << _ultima_riga_log(11);
  const std::string primo = formatta(scomponi(t0 - 2, nullptr), "%Y%m%d_%H%M%S.mp4");
  auto nome_valido = [](const std::string& s) {
    const std::string forma = "dddddddd_dddddd.mp4";
    if (s.size() != forma.size()) return false;
    for (std::size_t i = 0; i < s.size(); ++i)
      if (forma[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(s[i])) : s[i] != forma[i])
        return false;
    return true;
  };
  for (const auto& s : spezzoni(cart)) {
    SCOPED_TRACE(s);
    EXPECT_TRUE(nome_valido(s));
    EXPECT_GE(s, primo);  // named by local start time
    EXPECT_LE(s, formatta(scomponi(_ora() + 2, nullptr), "%Y%m%d_%H%M%S.mp4"));
  }

  // The segment being written has no index yet: only the stop can give it one.
  std::string aperto;
  EXPECT_TRUE(entro(5, [&] {
    aperto = spezzoni(cart).back();
    return leggi_file(cart + "/" + aperto).find("moov") == std::string::npos;
  }));

  ::testing::internal::CaptureStdout();
  auto t1 = std::chrono::steady_clock::now();
  _ferma(11, "prova");
  const double chiusura = secondi_da(t1);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[NVR] registrazione telecamera 11 fermata (prova)\n");
  std::printf("chiusura dopo SIGINT: %.3f s\n", chiusura);
  EXPECT_LT(chiusura, 10.0);  // ended by itself, well before the SIGKILL deadline
  EXPECT_TRUE(testing::attendi_sparito(pid, 5));
  {
    std::lock_guard l(_lock);
    EXPECT_TRUE(_processi.empty());
  }

  auto tutti = spezzoni(cart);
  EXPECT_NE(std::find(tutti.begin(), tutti.end(), aperto), tutti.end());
  for (const auto& s : tutti) controlla_mp4(cart + "/" + s);
  EXPECT_EQ(_ultima_riga_log(11), "");  // nothing went wrong
}

TEST_F(RegistratoriE2eTest, RecorderOfAClosedPortEndsAndIsRecorded) {
  const int porta = testing::porta_libera();
  ASSERT_GT(porta, 0);
  const std::string url = "rtsp://127.0.0.1:" + std::to_string(porta) + "/cam";
  const double t0 = _ora();
  ASSERT_EQ(_avvia(cfg_, camera(12, "Retro", url), "evento"), std::make_pair(true, std::string()));

  ::testing::internal::CaptureStdout();
  bool finito = entro(15, [] {
    _controlla_processi();
    std::lock_guard l(_lock);
    return _processi.empty();
  });
  std::string uscita = ::testing::internal::GetCapturedStdout();
  ASSERT_TRUE(finito);

  const std::string riga = _ultima_riga_log(12);
  EXPECT_NE(riga.find("Connection refused"), std::string::npos) << riga;
  EXPECT_EQ(uscita, "[NVR] telecamera 12: ffmpeg terminato: " + riga + "\n");
  std::lock_guard l(_lock);
  ASSERT_EQ(_errori_recenti.count(12), 1u);
  const ErroreRecente& e = _errori_recenti[12];
  EXPECT_EQ(e.n, 1);
  EXPECT_EQ(e.testo, riga.empty() ? "ffmpeg terminato (codice 1)" : riga);
  EXPECT_GE(e.ts, t0);
  EXPECT_LE(e.ts, _ora());
}

// Shutdown, a request thread and the engine's reaping at the same time: each recorder is stopped
// once, none is taken for a failure, and every one leaves complete files.
TEST_F(RegistratoriE2eTest, StopAllWhileOthersStopAndReap) {
  cfg_.segmento_sec = 4;
  const std::vector<Camera> cams = {camera(21, "Uno", camera_->url()),
                                    camera(22, "Due", camera_->url()),
                                    camera(23, "Tre", camera_->url())};
  std::vector<pid_t> pid;
  for (const auto& c : cams) {
    ASSERT_EQ(_avvia(cfg_, c, "continua", cams), std::make_pair(true, std::string()));
    pid.push_back(processo_di(c.id)->pid());
  }
  for (const auto& c : cams) {
    std::string cart = tmp_ / ("archivio/" + c.nome + "/in_corso");
    ASSERT_TRUE(entro(20, [&] { return !spezzoni(cart).empty(); })) << c.nome;
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));  // some video in each open segment

  ::testing::internal::CaptureStdout();
  std::atomic<bool> fine = false;
  auto t0 = std::chrono::steady_clock::now();
  std::thread motore([&] {
    while (!fine) {
      _controlla_processi();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::thread richiesta([] { _ferma(22, "telecamera rimossa"); });
  _ferma_tutto("arresto del server");
  const double durata = secondi_da(t0);
  richiesta.join();
  fine = true;
  motore.join();
  std::string uscita = ::testing::internal::GetCapturedStdout();
  std::printf("tre registratori fermati in %.3f s\n", durata);

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
  {
    std::lock_guard l(_lock);
    EXPECT_TRUE(_processi.empty());
    EXPECT_TRUE(_errori_recenti.empty());
  }
  for (pid_t p : pid) EXPECT_TRUE(testing::attendi_sparito(p, 5)) << p;
  for (const auto& c : cams) {
    std::string cart = tmp_ / ("archivio/" + c.nome + "/in_corso");
    for (const auto& s : spezzoni(cart)) controlla_mp4(cart + "/" + s);
  }
}

}  // namespace
}  // namespace nvr
