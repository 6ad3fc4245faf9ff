// The looped-file camera that the recording benchmarks lean on: what can break without anyone
// noticing is the loop seam (timestamps jumping back make ffmpeg drop or mangle frames) and the
// stream's shape (size, rate, keyframe spacing), which the benchmark's figures assume.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <thread>

#include "core/processo.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "testing/video_di_prova.h"

namespace nvr::testing {
namespace {

namespace fs = std::filesystem;

constexpr int kFotogrammiFile = 600;  // 20 s at 30 fps
constexpr int kGop = 60;

std::vector<std::string> segmenti(const std::string& cartella) {
  std::vector<std::string> file;
  for (const auto& v : fs::directory_iterator(cartella)) file.push_back(v.path());
  std::sort(file.begin(), file.end());
  return file;
}

TEST(CameraFileInLoopE2eTest, RecorderSeesOneContinuousStreamAcrossTwoLoops) {
  if (!programma_presente("ffmpeg") || !programma_presente("ffprobe"))
    GTEST_SKIP() << "ffmpeg/ffprobe non installati";
  std::string motivo;
  auto camera = CameraRtsp::avvia(&motivo, 15, 0, Sorgente::kFileInLoop);
  if (!camera) GTEST_SKIP() << "telecamera di prova non disponibile: " << motivo;

  // The recorder's own command line; ffmpeg cuts 15 s segments at the first keyframe past each
  // multiple of 15 s (16, 30, 46 s), so the loop seams (every 20 s) fall inside segments, where a
  // timestamp jump would show.
  CartellaTemporanea t;
  auto rec = avvia_processo({argomenti_ffmpeg(camera->url(), 15, t.percorso(), _ffmpeg_major())});
  ASSERT_TRUE(rec) << rec.errore().messaggio;
  // Three closed segments end at 46 s, past two seams, however long the connection took.
  const auto limite = std::chrono::steady_clock::now() + std::chrono::seconds(150);
  while (segmenti(t.percorso()).size() < 4 && std::chrono::steady_clock::now() < limite)
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  rec.valore()->segnala(SIGINT);
  ASSERT_TRUE(rec.valore()->attendi(20));

  const auto file = segmenti(t.percorso());
  ASSERT_GE(file.size(), 3u);
  std::size_t totale = 0;
  for (std::size_t i = 0; i < file.size(); ++i) {
    SCOPED_TRACE(file[i]);
    std::string errore;
    const auto v = leggi_video(file[i], &errore);
    ASSERT_TRUE(v) << errore;
    EXPECT_EQ(v->larghezza, 1920);
    EXPECT_EQ(v->altezza, 1080);
    EXPECT_DOUBLE_EQ(v->frequenza, 30.0);
    const auto& f = v->fotogrammi;
    ASSERT_FALSE(f.empty());
    EXPECT_TRUE(f[0].chiave);
    for (std::size_t k = 1; k < f.size(); ++k) {
      // The session's first frame leaves the server before the PLAY that opens the session, and
      // ffmpeg pins its time to the session's start, just before the second frame: only the
      // order is certain there.
      if (i == 0 && k == 1) {
        EXPECT_GT(f[k].pts, f[k - 1].pts);
        continue;
      }
      ASSERT_NEAR(f[k].pts - f[k - 1].pts, 1.0 / 30, 0.002) << "fotogramma " << k;
      ASSERT_EQ(f[k].chiave, k % kGop == 0) << "fotogramma " << k;
    }
    // Every segment but the last ends where the next keyframe begins: whole GOPs.
    if (i + 1 < file.size()) {
      EXPECT_EQ(f.size() % kGop, 0u) << f.size();
    }
    totale += f.size();
  }
  EXPECT_GT(totale, 2u * kFotogrammiFile);
}

}  // namespace
}  // namespace nvr::testing
