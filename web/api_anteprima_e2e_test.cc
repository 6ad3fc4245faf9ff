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
#include "core/config.h"
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

struct Segmento {
  std::int64_t id;
  double inizio, fine;
};

Risposta chiedi(const std::string& cam, const std::string& t) {
  Richiesta r;
  r.metodo = "GET";
  if (!cam.empty()) r.query["cam"] = cam;
  if (!t.empty()) r.query["t"] = t;
  return api_anteprima(r);
}

timespec mtime(const std::string& p) {
  struct stat st {};
  ::stat(p.c_str(), &st);
  return st.st_mtim;
}

class AnteprimaE2eTest : public ::testing::Test {
 protected:
  // Records a few 2 s segments once and files them as index rows of camera 7.
  static void SetUpTestSuite() {
    if (!ffmpeg_presente()) {
      motivo_ = "ffmpeg non installato";
      return;
    }
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
    const std::string cartella = _cartella_in_corso(cfg, cams.at(0), cams);
    auto avvio = _avvia(cfg, cams.at(0), "continua", cams);
    if (!avvio.first) {
      motivo_ = "registratore non avviato: " + avvio.second;
      return;
    }
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
      const auto inizio = _inizio_in_corso(fs::path(f).filename());
      if (!inizio) continue;
      const timespec m = mtime(f);
      const double fine = static_cast<double>(m.tv_sec) + m.tv_nsec / 1e9;
      host_->sql(
          "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione) VALUES (7, " +
          std::to_string(*inizio) + ", " + std::to_string(fine) + ", '" + f + "', " +
          std::to_string(fs::file_size(f)) + ")");
      segmenti_.push_back({static_cast<std::int64_t>(segmenti_.size() + 1), *inizio, fine});
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
  static inline std::vector<Segmento> segmenti_;
  static inline std::string motivo_;
};

TEST_F(AnteprimaE2eTest, PictureMadeOnceServedFromTheCacheAndDroppedWithItsRow) {
  const Segmento& s = segmenti_[1];
  Risposta r = chiedi("7", std::to_string(s.inizio + 1.0));
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  ASSERT_TRUE(r.file);
  const std::string foto = r.file->percorso;
  EXPECT_EQ(r.file->tipo, "image/jpeg");
  EXPECT_EQ(fs::path(foto).parent_path(), fs::path(host_->db_file).parent_path() / "nvr_anteprime");
  EXPECT_TRUE(fs::path(foto).filename().string().starts_with("2_")) << foto;
  EXPECT_EQ(r.intestazioni,
            (decltype(r.intestazioni){{"Cache-Control", "private, max-age=86400"}}));
  EXPECT_EQ(testing::leggi_file(foto).substr(0, 2), "\xFF\xD8");
  RisultatoComando sonda = _comando({"ffprobe", "-v", "error", "-select_streams", "v:0",
                                     "-show_entries", "stream=width", "-of", "csv=p=0", foto});
  ASSERT_EQ(sonda.codice, 0) << sonda.err;
  EXPECT_GT(std::stoi(sonda.out), 0);
  EXPECT_LE(std::stoi(sonda.out), 320);

  // Asked again (the same key frame): the same file, not made anew.
  const timespec prima = mtime(foto);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  Risposta ancora = chiedi("7", std::to_string(s.inizio + 1.0));
  ASSERT_EQ(ancora.status, 200);
  EXPECT_EQ(ancora.file->percorso, foto);
  const timespec dopo = mtime(foto);
  EXPECT_EQ(std::make_pair(prima.tv_sec, prima.tv_nsec), std::make_pair(dopo.tv_sec, dopo.tv_nsec));

  // Another segment's picture, then the first one's row leaves the index: the hygiene drops
  // only the picture whose segment is gone.
  Risposta altra = chiedi("7", std::to_string(segmenti_[0].inizio + 0.5));
  ASSERT_EQ(altra.status, 200) << altra.corpo.dump();
  host_->sql("DELETE FROM nvr_registrazioni WHERE id=2");
  EXPECT_EQ(pulisci_anteprime(), 1);
  EXPECT_FALSE(fs::exists(foto));
  EXPECT_TRUE(fs::exists(altra.file->percorso));
}

TEST_F(AnteprimaE2eTest, BadInputAnswers) {
  const std::string dentro = std::to_string(segmenti_[0].inizio + 0.5);
  const std::string lontano = std::to_string(segmenti_.back().fine + 61);
  const struct {
    std::string cam, t;
    int status;
    std::string messaggio;
  } casi[] = {
      {"", dentro, 400, "Telecamera non valida"},
      {"0", "x", 400, "Telecamera non valida"},
      {"-7", dentro, 400, "Telecamera non valida"},
      {"7a", dentro, 400, "Telecamera non valida"},
      {"99999999999999999999", dentro, 400, "Telecamera non valida"},
      {"8", "x", 404, "Telecamera non trovata"},
      {"7", "", 400, "Parametro non valido: t sono secondi dal 1970"},
      {"7", "ieri", 400, "Parametro non valido: t sono secondi dal 1970"},
      {"7", "inf", 400, "Parametro non valido: t sono secondi dal 1970"},
      {"7", "nan", 400, "Parametro non valido: t sono secondi dal 1970"},
      {"7", lontano, 404, "Nessuna registrazione in quel momento"},
      {"7", "0", 404, "Nessuna registrazione in quel momento"},
  };
  for (const auto& c : casi) {
    Risposta r = chiedi(c.cam, c.t);
    EXPECT_EQ(r.status, c.status) << c.cam << " " << c.t;
    EXPECT_EQ(r.corpo.value("message", ""), c.messaggio) << c.cam << " " << c.t;
  }

  // A camera only the index still knows, while the archive is away.
  host_->sql("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (9, 1, 3, '/x')");
  Config cfg = leggi_config();
  cfg.cartella = host_->cartella / "altrove";
  _salva_config(cfg);
  azzera_allineamento_per_test();
  Risposta via = chiedi("9", dentro);
  cfg.cartella = host_->cartella / "archivio";
  _salva_config(cfg);
  azzera_allineamento_per_test();
  EXPECT_EQ(via.status, 409);
  EXPECT_EQ(via.corpo.value("message", ""),
            "Unità di archivio non collegata: collegala e riprova.");
}

}  // namespace
}  // namespace nvr
