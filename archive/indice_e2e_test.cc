// A real ffmpeg recording a real RTSP camera, then indexed: while it records and after it stops.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <thread>

#include "archive/indice.h"
#include "core/db.h"
#include "core/tempo.h"
#include "archive/posizione.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "testing/processi.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;

constexpr CamId ID = 3;

struct Segmento {
  std::int64_t dimensione = 0;
  double mtime = 0.0;
};

// The in-progress files, each made 20 s old so that the index takes them now.
std::map<std::string, Segmento> invecchia(const std::string& cartella) {
  std::map<std::string, Segmento> r;
  for (const auto& e : fs::directory_iterator(cartella)) {
    double mtime = _ora() - 20;
    timespec t{static_cast<time_t>(mtime), 0};
    timespec tempi[2] = {t, t};
    EXPECT_EQ(::utimensat(AT_FDCWD, e.path().c_str(), tempi, 0), 0);
    r[e.path().filename().string()] = {static_cast<std::int64_t>(e.file_size()),
                                       static_cast<double>(t.tv_sec)};
  }
  return r;
}

// The start written in the recorder's file name, read on the machine's clock.
double inizio_del_nome(const std::string& nome) {
  std::tm t{};
  EXPECT_EQ(std::sscanf(nome.c_str(), "%4d%2d%2d_%2d%2d%2d.mp4", &t.tm_year, &t.tm_mon, &t.tm_mday,
                        &t.tm_hour, &t.tm_min, &t.tm_sec),
            6)
      << nome;
  t.tm_year -= 1900;
  t.tm_mon -= 1;
  t.tm_isdst = -1;
  return static_cast<double>(std::mktime(&t));
}

class IndiceE2eTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!ffmpeg_presente()) GTEST_SKIP() << "ffmpeg non presente sul PATH";
    std::string motivo;
    camera_ = testing::CameraRtsp::avvia(&motivo);
    if (!camera_) GTEST_SKIP() << "telecamera di prova non disponibile: " << motivo;
    _init_db();
    cfg.cartella = radice.percorso();
    cfg.segmento_sec = 2;
    Camera cam;
    cam.id = ID;
    cam.nome = "Ingresso";
    cam.url = camera_->url();
    cam.attiva = true;
    cams = {cam};
  }
  void TearDown() override { _ferma_tutto(); }

  std::map<std::string, RigaIndice> righe() {
    std::map<std::string, RigaIndice> r;
    Connessione c(host.db_file);
    c.scorri("SELECT cam_id, inizio, fine, file, dimensione, motivo FROM nvr_registrazioni", {},
             [&](const Riga& x) {
               r[come_testo(x[3])] = {come_intero(x[0]), come_reale(x[1]),  come_reale(x[2]),
                                      come_testo(x[3]),  come_intero(x[4]), come_testo(x[5])};
             });
    return r;
  }

  // Every in-progress file of `prima` that is gone now must be indexed at its day folder path,
  // with its start from the name, its end, size and reason.
  std::size_t verifica_spostati(const std::map<std::string, Segmento>& prima,
                                const std::string& motivo) {
    auto indice = righe();
    std::size_t spostati = 0;
    for (const auto& [nome, s] : prima) {
      if (fs::exists(fs::path(in_corso) / nome)) continue;
      SCOPED_TRACE(nome);
      double inizio = inizio_del_nome(nome);
      EXPECT_GE(inizio, avvio - 2);
      EXPECT_LE(inizio, _ora());
      auto [giorno, ora] = _giorno_di(inizio);
      std::string dove = radice / ("Ingresso/" + giorno + "/" + ora + ".mp4");
      auto r = indice.find(dove);
      if (s.dimensione < 1024) {  // a fragment cut off by the stop: deleted, not indexed
        EXPECT_EQ(r, indice.end());
        continue;
      }
      ++spostati;
      EXPECT_TRUE(fs::exists(dove));
      if (r == indice.end()) {
        ADD_FAILURE() << "nessuna riga per " << dove;
        continue;
      }
      EXPECT_EQ(r->second.cam_id, ID);
      EXPECT_DOUBLE_EQ(r->second.inizio, inizio);
      EXPECT_DOUBLE_EQ(r->second.fine, std::max(inizio + 1, s.mtime));
      EXPECT_EQ(r->second.dimensione, s.dimensione);
      EXPECT_EQ(r->second.motivo, motivo);
    }
    return spostati;
  }

  testing::HostDiProva host;
  CartellaTemporanea radice;
  CartellaTemporanea tmp;
  testing::VariabileDiProva tmpdir{"TMPDIR", tmp.percorso()};  // the recorder's logs
  std::unique_ptr<testing::CameraRtsp> camera_;
  Config cfg;
  std::vector<Camera> cams;
  std::string in_corso;
  double avvio = 0.0;
};

TEST_F(IndiceE2eTest, RecordedSegmentsAreFiledAndIndexed) {
  in_corso = _cartella_in_corso(cfg, cams[0], cams);
  avvio = _ora();
  ASSERT_EQ(_avvia(cfg, cams[0], "evento", cams), std::make_pair(true, std::string()));

  // Three files: the first two are finished (the recorder closes one before opening the next).
  auto t0 = std::chrono::steady_clock::now();
  auto quanti = [&] {
    std::error_code ec;
    auto it = fs::directory_iterator(in_corso, ec);
    return ec ? 0 : std::distance(it, fs::directory_iterator{});
  };
  while (quanti() < 3 && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(30))
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ASSERT_GE(quanti(), 3) << _ultima_riga_log(ID);

  // While it records: the finished ones go, with the recorder's reason; the newest stays.
  auto prima = invecchia(in_corso);
  _indicizza(cfg, cams);
  EXPECT_TRUE(fs::exists(fs::path(in_corso) / prima.rbegin()->first));
  EXPECT_EQ(verifica_spostati(prima, "evento"), prima.size() - 1);
  EXPECT_EQ(righe().size(), prima.size() - 1);

  // Stopped: what is left is finished and goes too, now without a reason.
  _ferma(ID, "prova");
  auto dopo = invecchia(in_corso);
  ASSERT_FALSE(dopo.empty());
  std::size_t righe_prima = righe().size();
  _indicizza(cfg, cams);
  EXPECT_TRUE(fs::is_empty(in_corso));
  std::size_t spostati = verifica_spostati(dopo, "");
  EXPECT_GE(spostati, 1u);
  EXPECT_EQ(righe().size(), righe_prima + spostati);
}

}  // namespace
}  // namespace nvr
