// The health seen from outside, with the real recorder, the real camera and the engine thread: a
// camera whose stream stops becomes a problem and /api/salute answers 503, and both clear once it
// records again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "core/richiesta.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "engine/salute.h"
#include "engine/salute_raccolta.h"
#include "testing/camera_rtsp.h"
#include "testing/host_web.h"
#include "web/api_salute.h"
#include "web/collega.h"

namespace nvr {
namespace {

using ::testing::HasSubstr;

bool attendi(const std::function<bool()>& condizione, double secondi) {
  auto fine = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondi);
  while (std::chrono::steady_clock::now() < fine) {
    if (condizione()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return condizione();
}

bool ferma(const Salute& s) {
  for (const Problema& p : s.problemi)
    if (p.codice == "camera_ferma:1") return true;
  return false;
}

TEST(SaluteE2eTest, AStoppedCameraIsAProblemUntilItRecordsAgain) {
  if (!ffmpeg_presente()) GTEST_SKIP() << "ffmpeg non installato";
  std::string motivo;
  auto camera = testing::CameraRtsp::avvia(&motivo);
  if (!camera) GTEST_SKIP() << "telecamera di prova non disponibile: " << motivo;

  testing::HostWeb h;
  testing::CartellaTemporanea t;
  h.aggiungi_camera(1, "Ingresso", camera->url());
  ::testing::internal::CaptureStdout();
  ASSERT_TRUE(collega(h.host));
  // After the host's reset of every module. 2 s segments; the margin lowered from 60 s to 20 s
  // keeps the test short while staying above the index's 10 s period, so a healthy camera never
  // trips the rule: 2 x 2 + 20 = 24 s.
  imposta_margine_ferma_per_test(20);
  h.sql("UPDATE nvr_config SET attivo=1, segmento_sec=2, cartella='" + (t / "archivio") + "'");
  h.sql("INSERT INTO nvr_camere (cam_id, attiva) VALUES (1, 1)");
  _giro_sicuro();

  auto stato = [] { return api_salute(Richiesta{}).status; };
  auto registra = [] {
    Salute s = salute_attuale();
    return s.telecamere.size() == 1 && s.telecamere[0].stato == StatoCamera::registra &&
           s.telecamere[0].ultimo_segmento && s.problemi.empty();
  };
  EXPECT_TRUE(attendi(registra, 40)) << "la telecamera non registra";
  EXPECT_EQ(stato(), 200);

  // Stopped: within the rule, plus one index period and a pass.
  camera->sospendi();
  EXPECT_TRUE(attendi([] { return ferma(salute_attuale()); }, 24 + 10 + 6 + 5));
  EXPECT_EQ(salute_attuale().telecamere.at(0).stato, StatoCamera::ferma);
  EXPECT_EQ(stato(), 503);
  Risposta d = api_salute_dettagli(Richiesta{});
  EXPECT_EQ(d.corpo["problemi"][0]["codice"], "camera_ferma:1");
  EXPECT_EQ(d.corpo["telecamere"][0]["stato"], "ferma");

  // Back: the recorder's back-off after its failures (at most 60 s) and a segment to index.
  camera->riprendi();
  EXPECT_TRUE(attendi([&] { return stato() == 200 && registra(); }, 90));
  std::string log = ::testing::internal::GetCapturedStdout();
  EXPECT_THAT(log, HasSubstr("[NVR] problema: La telecamera Ingresso non registra da"));
  EXPECT_THAT(log, HasSubstr("[NVR] risolto: La telecamera Ingresso non registra da"));

  arresta_motore();
  attendi_fine_motore();
  _ferma_tutto("fine prova");
  azzera_raccolta_salute_per_test();
}

}  // namespace
}  // namespace nvr
