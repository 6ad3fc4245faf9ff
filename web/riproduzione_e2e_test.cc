// Playback and export over segments the real recorder wrote from the RTSP test camera: the
// handlers are called directly and their bodies read as a server would, then checked with
// ffprobe and ffmpeg.
#include <dirent.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "archive/elenchi.h"
#include "archive/indice.h"
#include "archive/mp4_traccia.h"
#include "archive/piano_riproduzione.h"
#include "archive/posizione.h"
#include "core/config.h"
#include "core/db.h"
#include "core/json.h"
#include "core/tempo.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "web/api_riproduzione.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using Orologio = std::chrono::steady_clock;

std::string esegui(const std::string& comando) {
  std::string uscita;
  FILE* p = ::popen(comando.c_str(), "r");
  if (!p) return uscita;
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) uscita.append(buf, n);
  ::pclose(p);
  return uscita;
}

// The whole body, read as the server reads it.
std::string corpo(Flusso& f) {
  std::string tutto;
  char buf[64 * 1024];
  for (;;) {
    std::size_t n = 0;
    const Flusso::Lettura l = f.leggi(buf, sizeof buf, n, [] {});
    if (l == Flusso::Lettura::kFine) return tutto;
    EXPECT_EQ(l, Flusso::Lettura::kDati);  // a recording never makes the server wait
    tutto.append(buf, n);
  }
}

std::string intestazione(const Risposta& r, const std::string& nome) {
  for (const auto& [k, v] : r.intestazioni)
    if (k == nome) return v;
  return "";
}

std::string sha256(const std::string& dati) {
  unsigned char somma[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  EVP_Digest(dati.data(), dati.size(), somma, &n, EVP_sha256(), nullptr);
  char hex[3];
  std::string testo;
  for (unsigned int i = 0; i < n; ++i) {
    std::snprintf(hex, sizeof hex, "%02x", somma[i]);
    testo += hex;
  }
  return testo;
}

struct Pacchetto {
  double dts = 0;
  bool chiave = false;
};

// ffprobe's packets and duration of a file.
struct Sonda {
  std::vector<Pacchetto> pacchetti;
  double durata = 0;
};
Sonda sonda(const std::string& file) {
  const Json j = leggi_json(esegui("ffprobe -v error -select_streams v:0 -show_entries "
                                   "packet=dts_time,flags:format=duration -of json '" +
                                   file + "'"))
                     .value_or(Json::object());
  Sonda s;
  for (const Json& p : j.value("packets", Json::array()))
    s.pacchetti.push_back(
        {std::stod(p.value("dts_time", "0")), p.value("flags", "").find('K') != std::string::npos});
  s.durata = std::stod(j.value("format", Json::object()).value("duration", "0"));
  return s;
}

int descrittori_aperti() {
  int n = 0;
  for ([[maybe_unused]] const auto& v : fs::directory_iterator("/proc/self/fd")) ++n;
  return n;
}
int thread_vivi() {
  int n = 0;
  for ([[maybe_unused]] const auto& v : fs::directory_iterator("/proc/self/task")) ++n;
  return n;
}

class RiproduzioneE2eTest : public ::testing::Test {
 protected:
  // Records once for every test: seven segments of 2 s, then the recorder stops. The first and
  // last files (a start and a stop mid-GOP) and the fifth (a gap) get no row: the index holds a
  // run of three segments, a gap of one, and a run after it.
  static void SetUpTestSuite() {
    if (!ffmpeg_presente()) {
      motivo_ = "ffmpeg non installato";
      return;
    }
    camera_ = testing::CameraRtsp::avvia(&motivo_);
    if (!camera_) return;
    host_ = std::make_unique<testing::HostDiProva>();
    _init_db();
    host_->aggiungi_camera(1, "Ingresso principale", camera_->url());
    Config cfg = leggi_config();
    cfg.cartella = host_->cartella / "archivio";
    cfg.segmento_sec = 2;
    _salva_config(cfg);
    std::vector<Camera> cams = _telecamere();
    const std::string in_corso = _cartella_in_corso(cfg, cams.at(0), cams);
    auto file = [&] {
      std::vector<std::string> nomi;
      std::error_code ec;
      for (const auto& v : fs::directory_iterator(in_corso, ec)) nomi.push_back(v.path());
      std::sort(nomi.begin(), nomi.end());
      return nomi;
    };
    if (!_avvia(cfg, cams.at(0), "continua", cams).first) {
      motivo_ = "il registratore non parte";
      return;
    }
    const auto limite = Orologio::now() + std::chrono::seconds(40);
    while (file().size() < 8 && Orologio::now() < limite)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    _ferma_tutto("fine registrazione di prova");
    std::vector<std::string> registrati = file();
    if (registrati.size() < 8) {
      motivo_ = "il registratore ha scritto solo " + std::to_string(registrati.size()) + " file";
      return;
    }
    std::vector<RigaIndice> righe;
    std::vector<std::pair<std::string, std::string>> nessuno;
    for (std::size_t i : {1, 2, 3, 5, 6}) {
      struct stat st {};
      ::stat(registrati[i].c_str(), &st);
      righe.push_back({1, *_inizio_in_corso(fs::path(registrati[i]).filename()),
                       st.st_mtim.tv_sec + st.st_mtim.tv_nsec / 1e9, registrati[i], st.st_size,
                       "continua"});
    }
    _scrivi_indice(righe, nessuno);
    for (const SegmentoElencato& s : giornata_camera(1, 0, 1e10).segmenti) {
      auto t = leggi_traccia(s.file);
      segmenti_.push_back({s, static_cast<double>(t.valore().durata) / t.valore().scala});
      campioni_.push_back(t.valore().campioni.size());
    }
  }
  static void TearDownTestSuite() {
    host_.reset();
    camera_.reset();
  }
  void SetUp() override {
    if (segmenti_.size() != 5) GTEST_SKIP() << motivo_;
  }

  static Richiesta richiesta(std::map<std::string, std::string> query) {
    Richiesta r;
    r.metodo = "GET";
    r.query = std::move(query);
    return r;
  }
  static std::string t(double x) { return std::to_string(x); }
  // Writes `dati` to a file of the test folder and answers its path.
  static std::string su_file(const std::string& nome, const std::string& dati) {
    const std::string p = host_->cartella / nome;
    testing::scrivi_file(p, dati);
    return p;
  }

  static inline std::unique_ptr<testing::CameraRtsp> camera_;
  static inline std::unique_ptr<testing::HostDiProva> host_;
  static inline std::string motivo_;
  static inline std::vector<SegmentoPiano> segmenti_;  // the indexed ones, in order
  static inline std::vector<std::size_t> campioni_;    // samples of each
};

TEST_F(RiproduzioneE2eTest, ARunStreamsAsOneTimelineContinuousAtTheJoins) {
  ASSERT_TRUE(uniti(segmenti_[0].riga, segmenti_[1].riga));
  ASSERT_TRUE(uniti(segmenti_[1].riga, segmenti_[2].riga));
  ASSERT_FALSE(uniti(segmenti_[2].riga, segmenti_[3].riga));
  // Default end: the run's end; the start falls inside the first segment's second GOP.
  const double da = avvio(segmenti_[0]) + 1.5;
  const auto t0 = Orologio::now();
  Risposta r = api_flusso(richiesta({{"cam", "1"}, {"da", t(da)}}));
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  ASSERT_TRUE(r.flusso);
  std::string primi;
  char buf[64 * 1024];
  while (primi.find("mdat") == std::string::npos) {
    std::size_t n = 0;
    ASSERT_EQ(r.flusso->leggi(buf, sizeof buf, n, [] {}), Flusso::Lettura::kDati);
    primi.append(buf, n);
  }
  const double ms = std::chrono::duration<double, std::milli>(Orologio::now() - t0).count();
  std::printf("primo frammento dopo %.1f ms\n", ms);
  EXPECT_LT(ms, 150);
  const std::string video = su_file("flusso.mp4", primi + corpo(*r.flusso));

  const double inizio = std::stod(intestazione(r, "X-Nvr-Inizio"));
  EXPECT_LE(inizio, da);
  EXPECT_GT(inizio, da - 1.1);  // the key frame before: one a second
  EXPECT_EQ(intestazione(r, "X-Nvr-Buchi"), "[]");
  EXPECT_EQ(intestazione(r, "X-Nvr-Codec").substr(0, 5), "avc1.");

  const Sonda s = sonda(video);
  ASSERT_FALSE(s.pacchetti.empty());
  EXPECT_TRUE(s.pacchetti[0].chiave);
  EXPECT_NEAR(s.durata, segmenti_[2].riga.fine - inizio, 0.12);
  // Every frame follows the one before by one frame time: none lost or doubled at a join.
  for (std::size_t i = 1; i < s.pacchetti.size(); ++i)
    ASSERT_NEAR(s.pacchetti[i].dts - s.pacchetti[i - 1].dts, 0.04, 0.002) << i;
  // The first frame of each later segment maps to that segment's wall start within a frame.
  const std::size_t primo = s.pacchetti.size() - campioni_[1] - campioni_[2];
  EXPECT_NEAR(inizio + s.pacchetti[primo].dts, avvio(segmenti_[1]), 0.04);
  EXPECT_NEAR(inizio + s.pacchetti[primo + campioni_[1]].dts, avvio(segmenti_[2]), 0.04);
}

TEST_F(RiproduzioneE2eTest, AGapIsReportedAndTheNextRunKeepsItsWallTime) {
  const double da = segmenti_[2].riga.inizio + 0.5;
  const double a = segmenti_[4].riga.fine;
  Risposta r = api_flusso(richiesta({{"cam", "1"}, {"da", t(da)}, {"a", t(a)}}));
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  const std::string video = su_file("buco.mp4", corpo(*r.flusso));
  const Json buchi = leggi_json(intestazione(r, "X-Nvr-Buchi")).value_or(Json());
  ASSERT_EQ(buchi.size(), 1u) << intestazione(r, "X-Nvr-Buchi");
  EXPECT_NEAR(buchi[0][0].get<double>(), segmenti_[2].riga.fine, 0.001);
  EXPECT_NEAR(buchi[0][1].get<double>(), segmenti_[3].riga.inizio, 0.001);

  const double inizio = std::stod(intestazione(r, "X-Nvr-Inizio"));
  const Sonda s = sonda(video);
  const std::size_t dopo = s.pacchetti.size() - campioni_[3] - campioni_[4];
  ASSERT_GT(dopo, 0u);
  EXPECT_NEAR(inizio + s.pacchetti[dopo].dts, avvio(segmenti_[3]), 0.04);
  EXPECT_GT(s.pacchetti[dopo].dts - s.pacchetti[dopo - 1].dts, 1.0);
  EXPECT_TRUE(s.pacchetti[dopo].chiave);
}

TEST_F(RiproduzioneE2eTest, ExportPlaysStartsOnAKeyFrameAndItsHashIsKnownAhead) {
  const double da = avvio(segmenti_[0]) + 1.5;
  const double a = segmenti_[3].riga.fine - 0.5;  // across the gap, into the last run
  const auto query = richiesta({{"cam", "1"}, {"da", t(da)}, {"a", t(a)}});
  Risposta impronta = api_impronta(query);
  ASSERT_EQ(impronta.status, 200) << impronta.corpo.dump();

  const auto t0 = Orologio::now();
  Risposta r = api_esporta(query);
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  ASSERT_TRUE(r.flusso && r.flusso->lunghezza());
  const std::string dati = corpo(*r.flusso);
  const double s_esporta = std::chrono::duration<double>(Orologio::now() - t0).count();
  EXPECT_EQ(dati.size(), *r.flusso->lunghezza());
  EXPECT_EQ(sha256(dati), impronta.corpo["sha256"]);
  EXPECT_EQ(intestazione(r, "X-Nvr-Sha256"), impronta.corpo["sha256"]);
  EXPECT_EQ(impronta.corpo["byte"], dati.size());
  const std::string nome = impronta.corpo["nome"];
  EXPECT_EQ(intestazione(r, "Content-Disposition"), "attachment; filename=\"" + nome + "\"");
  EXPECT_EQ(nome.rfind("Ingresso_principale_", 0), 0u) << nome;
  std::printf("esportazione di %zu byte in %.4f s\n", dati.size(), s_esporta);

  // Deterministic: a second export gives the same bytes.
  Risposta ancora = api_esporta(query);
  ASSERT_EQ(ancora.status, 200);
  EXPECT_TRUE(corpo(*ancora.flusso) == dati);

  const std::string video = su_file("esportato.mp4", dati);
  EXPECT_EQ(esegui("ffmpeg -nostdin -v error -i '" + video + "' -f null - 2>&1"), "");
  EXPECT_EQ(dati.substr(4, 4), "ftyp");
  const auto moov = dati.find("moov"), mdat = dati.find("mdat");
  ASSERT_NE(moov, std::string::npos);
  EXPECT_LT(moov, mdat);
  const Sonda s = sonda(video);
  ASSERT_FALSE(s.pacchetti.empty());
  EXPECT_TRUE(s.pacchetti[0].chiave);
  const double inizio = std::stod(intestazione(r, "X-Nvr-Inizio"));
  const double buco = avvio(segmenti_[3]) - segmenti_[2].riga.fine;
  EXPECT_NEAR(s.durata, a - inizio - buco, 0.12);
  EXPECT_EQ(impronta.corpo["buchi"].size(), 1u);
}

TEST_F(RiproduzioneE2eTest, BadInputAnswersOfEveryRoute) {
  const std::string da = t(segmenti_[0].riga.inizio), a = t(segmenti_[0].riga.fine);
  const std::string parametri = "Parametri non validi: da e a sono secondi dal 1970";
  struct Caso {
    std::map<std::string, std::string> query;
    int status;
    std::string messaggio;
    bool solo_esporta = false;  // the stream has a default end
  };
  const std::vector<Caso> casi = {
      {{{"da", da}, {"a", a}}, 400, "Telecamera non valida"},
      {{{"cam", "0"}, {"da", da}, {"a", a}}, 400, "Telecamera non valida"},
      {{{"cam", "1.5"}, {"da", da}, {"a", a}}, 400, "Telecamera non valida"},
      {{{"cam", "7"}, {"da", da}, {"a", a}}, 404, "Telecamera non trovata"},
      {{{"cam", "1"}, {"da", "ieri"}, {"a", a}}, 400, parametri},
      {{{"cam", "1"}, {"da", "nan"}, {"a", a}}, 400, parametri},
      {{{"cam", "1"}, {"da", da}, {"a", "1e999"}}, 400, parametri},
      {{{"cam", "1"}, {"da", da}}, 400, parametri, true},
      {{{"cam", "1"}, {"da", a}, {"a", da}}, 400, "La fine deve venire dopo l'inizio"},
      {{{"cam", "1"}, {"da", da}, {"a", t(std::stod(da) + 86401)}},
       400,
       "Periodo troppo lungo: al massimo 24 ore"},
      {{{"cam", "1"}, {"da", "1000"}, {"a", "2000"}},
       404,
       "Nessuna registrazione nel periodo scelto"},
  };
  for (const Caso& c : casi)
    for (auto* route : {api_flusso, api_esporta, api_impronta}) {
      if (c.solo_esporta && route == api_flusso) continue;
      Risposta r = route(richiesta(c.query));
      EXPECT_EQ(r.status, c.status) << testo_json(Json(c.query), Ascii::kTieni);
      EXPECT_EQ(r.corpo.value("message", ""), c.messaggio);
      EXPECT_EQ(r.corpo.value("status", ""), "error");
    }

  // The archive's drive away: 409, before looking at the index.
  Config cfg = leggi_config();
  const std::string cartella = cfg.cartella;
  cfg.cartella = host_->cartella / "staccata";
  _salva_config(cfg);
  Risposta r = api_flusso(richiesta({{"cam", "1"}, {"da", da}}));
  cfg.cartella = cartella;
  _salva_config(cfg);
  EXPECT_EQ(r.status, 409);
  EXPECT_EQ(r.corpo.value("message", ""), "Unità di archivio non collegata: collegala e riprova.");
}

TEST_F(RiproduzioneE2eTest, AClientLeavingMidStreamLeavesNothingOpen) {
  const int descrittori = descrittori_aperti(), thread = thread_vivi();
  {
    Risposta r = api_flusso(richiesta({{"cam", "1"}, {"da", t(segmenti_[0].riga.inizio)}}));
    ASSERT_EQ(r.status, 200);
    char buf[100 * 1024];
    std::size_t n = 0;
    for (int i = 0; i < 3; ++i)
      ASSERT_EQ(r.flusso->leggi(buf, sizeof buf, n, [] {}), Flusso::Lettura::kDati);
    EXPECT_GT(descrittori_aperti(), descrittori);  // a segment is open while it is sent
  }
  EXPECT_EQ(descrittori_aperti(), descrittori);
  EXPECT_EQ(thread_vivi(), thread);
}

}  // namespace
}  // namespace nvr
