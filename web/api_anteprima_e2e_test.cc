// Timeline pictures of segments recorded from the RTSP test camera by the real recorder, made by
// the real ffmpeg, answered by the handler.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "archive/allineamento.h"
#include "archive/indice.h"
#include "archive/posizione.h"
#include "core/db.h"
#include "engine/anteprime.h"
#include "engine/registratori.h"
#include "storage/comando.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "web/api_anteprima.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;

Risposta chiedi(const std::string& cam, const std::string& t) {
  Richiesta r;
  if (!cam.empty()) r.query["cam"] = cam;
  if (!t.empty()) r.query["t"] = t;
  return api_anteprima(r);
}

double mtime(const std::string& p) {
  struct stat st {};
  ::stat(p.c_str(), &st);
  return static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9;
}

class AnteprimaE2eTest : public ::testing::Test {
 protected:
  // Records a few 2 s segments once and files them as index rows 1, 2, ... of camera 7.
  static void SetUpTestSuite() {
    if (!ffmpeg_presente()) return void(motivo_ = "ffmpeg non installato");
    camera_ = testing::CameraRtsp::avvia(&motivo_);
    if (!camera_) return;
    host_ = std::make_unique<testing::HostDiProva>();
    _init_db();
    Config cfg;
    cfg.cartella = host_->cartella / "archivio";
    cfg.segmento_sec = 2;
    _salva_config(cfg);
    host_->aggiungi_camera(7, "Prova", camera_->url());
    const std::vector<Camera> cams = _telecamere();
    const fs::path cartella = _cartella_in_corso(cfg, cams.at(0), cams);
    if (!_avvia(cfg, cams.at(0), "continua", cams).first) return void(motivo_ = "non registra");
    auto file = [&] {
      std::vector<std::string> f;
      std::error_code ec;
      for (const auto& v : fs::directory_iterator(cartella, ec)) f.push_back(v.path());
      std::sort(f.begin(), f.end());
      return f;
    };
    for (int i = 0; i < 300 && file().size() < 4; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    _ferma_tutto("fine registrazione di prova");
    for (const std::string& f : file()) {
      const double inizio = _inizio_in_corso(fs::path(f).filename()).value_or(0);
      host_->sql("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (7, " +
                 std::to_string(inizio) + ", " + std::to_string(mtime(f)) + ", '" + f + "')");
      segmenti_.push_back({inizio, mtime(f)});
    }
    if (segmenti_.size() < 3) motivo_ = "meno di tre segmenti registrati";
  }
  static void TearDownTestSuite() {
    host_.reset();
    camera_.reset();
  }
  void SetUp() override {
    if (segmenti_.size() < 3) GTEST_SKIP() << motivo_;
  }

  static inline std::unique_ptr<testing::CameraRtsp> camera_;
  static inline std::unique_ptr<testing::HostDiProva> host_;
  static inline std::vector<std::pair<double, double>> segmenti_;  // inizio, fine
  static inline std::string motivo_;
};

TEST_F(AnteprimaE2eTest, PictureMadeOnceServedFromTheCacheAndDroppedWithItsRow) {
  const std::string t = std::to_string(segmenti_[1].first + 1.0);
  Risposta r = chiedi("7", t);
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  const std::string foto = r.file->percorso;
  EXPECT_EQ(r.file->tipo, "image/jpeg");
  EXPECT_EQ(fs::path(foto).parent_path(), fs::path(host_->db_file).parent_path() / "nvr_anteprime");
  EXPECT_TRUE(fs::path(foto).filename().string().starts_with("2_")) << foto;
  EXPECT_EQ(r.intestazioni,
            (decltype(r.intestazioni){{"Cache-Control", "private, max-age=86400"}}));
  EXPECT_EQ(testing::leggi_file(foto).substr(0, 2), "\xFF\xD8");
  RisultatoComando larghezza =
      _comando({"ffprobe", "-v", "error", "-show_entries", "stream=width", "-of", "csv=p=0", foto});
  ASSERT_EQ(larghezza.codice, 0) << larghezza.err;
  EXPECT_EQ(std::stoi(larghezza.out), 320);  // from the camera's 640

  // Asked again: the same file, not made anew.
  const double fatta = mtime(foto);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(chiedi("7", t).file->percorso, foto);
  EXPECT_EQ(mtime(foto), fatta);

  // Segment 2's row leaves the index: the hygiene drops its picture only.
  Risposta altra = chiedi("7", std::to_string(segmenti_[0].first + 0.5));
  ASSERT_EQ(altra.status, 200) << altra.corpo.dump();
  host_->sql("DELETE FROM nvr_registrazioni WHERE id=2");
  EXPECT_EQ(pulisci_anteprime(), 1);
  EXPECT_FALSE(fs::exists(foto));
  EXPECT_TRUE(fs::exists(altra.file->percorso));
}

TEST_F(AnteprimaE2eTest, BadInputAnswers) {
  const std::string dentro = std::to_string(segmenti_[0].first + 0.5);
  const std::string t_male = "Parametro non valido: t sono secondi dal 1970";
  const std::string niente = "Nessuna registrazione in quel momento";
  // Camera 9 is only in the index; its archive is "altrove", which is not there.
  host_->sql("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (9, 1, 3, '/x')");
  const struct {
    std::string cam, t;
    int status;
    std::string messaggio;
  } casi[] = {
      {"9", dentro, 409, "Unità di archivio non collegata: collegala e riprova."},
      {"", dentro, 400, "Telecamera non valida"},
      {"0", "x", 400, "Telecamera non valida"},
      {"-7", dentro, 400, "Telecamera non valida"},
      {"99999999999999999999", dentro, 400, "Telecamera non valida"},
      {"+7", dentro, 400, "Telecamera non valida"},  // read as strictly as the playback routes
      {" 7", dentro, 400, "Telecamera non valida"},
      {"8", "x", 404, "Telecamera non trovata"},
      {"7", "", 400, t_male},
      {"7", "ieri", 400, t_male},
      {"7", "inf", 400, t_male},
      {"7", " 12", 400, t_male},
      {"7", "-1e300", 400, t_male},  // beyond any day the calendar can hold
      {"7", std::to_string(segmenti_.back().second + 61), 404, niente},
  };
  for (const auto& c : casi) {
    Config cfg = leggi_config();
    cfg.cartella = host_->cartella / (c.cam == "9" ? "altrove" : "archivio");
    _salva_config(cfg);
    azzera_allineamento_per_test();
    Risposta r = chiedi(c.cam, c.t);
    EXPECT_EQ(r.status, c.status) << c.cam << " " << c.t;
    EXPECT_EQ(r.corpo.value("message", ""), c.messaggio) << c.cam << " " << c.t;
  }
}

}  // namespace
}  // namespace nvr
