// Playback and export over segments the real recorder wrote from the RTSP test camera: the
// handlers are called directly, their bodies read as the server reads them, then checked with
// ffprobe and ffmpeg.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "archive/elenchi.h"
#include "archive/indice.h"
#include "archive/posizione.h"
#include "core/db.h"
#include "engine/registratori.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "web/api_riproduzione.h"
#include "web/flusso_riproduzione.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using Orologio = std::chrono::steady_clock;

std::string esegui(const std::string& comando) {
  std::string uscita(1 << 16, '\0');
  FILE* p = ::popen(comando.c_str(), "r");
  uscita.resize(std::fread(uscita.data(), 1, uscita.size(), p));
  ::pclose(p);
  return uscita;
}

// The body up to its end (or the first `mdat` when `primo_frammento`).
std::string corpo(Flusso& f, bool primo_frammento = false) {
  std::string tutto;
  std::vector<char> buf(256 * 1024);
  std::size_t n = 0;
  while (!(primo_frammento && tutto.find("mdat") != std::string::npos) &&
         f.leggi(buf.data(), buf.size(), n, [] {}) == Flusso::Lettura::kDati)
    tutto.append(buf.data(), n);
  return tutto;
}

std::string intestazione(const Risposta& r, const std::string& nome) {
  for (const auto& [k, v] : r.intestazioni)
    if (k == nome) return v;
  return "";
}

// `dati` in a file of `cartella`: ffprobe's decode times, key flags and duration.
struct Sonda {
  std::string file;
  std::vector<std::pair<double, bool>> pacchetti;
  double durata = 0;
};
Sonda sonda(const std::string& cartella, const std::string& dati) {
  Sonda s;
  s.file = cartella + "/video.mp4";
  testing::scrivi_file(s.file, dati);
  const Json j =
      *leggi_json(esegui("ffprobe -v error -show_entries packet=dts_time,flags:format="
                         "duration -of json " +
                         s.file));
  for (const Json& p : j["packets"])
    s.pacchetti.emplace_back(std::stod(p["dts_time"].get<std::string>()),
                             p["flags"].get<std::string>()[0] == 'K');
  s.durata = std::stod(j["format"]["duration"].get<std::string>());
  return s;
}

int voci(const char* cartella) {
  return static_cast<int>(std::distance(fs::directory_iterator(cartella), {}));
}

Richiesta richiesta(double da, double a = 0) {
  Richiesta r;
  r.query = {{"cam", "1"}, {"da", std::to_string(da)}};
  if (a) r.query["a"] = std::to_string(a);
  return r;
}

class RiproduzioneE2eTest : public ::testing::Test {
 protected:
  // Records once: eight files of 2 s, then the recorder stops. The first and last (cut at a start
  // and a stop) and the fifth (a gap) get no row: a run of three segments, a gap, a run of two.
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
    _avvia(cfg, cams.at(0), "continua", cams);
    const auto limite = Orologio::now() + std::chrono::seconds(40);
    while (file().size() < 8 && Orologio::now() < limite)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    _ferma_tutto("fine prova");
    std::vector<std::string> registrati = file();
    if (registrati.size() < 8) return;
    std::vector<RigaIndice> righe;
    std::vector<std::pair<std::string, std::string>> nessuno;
    for (std::size_t i : {1, 2, 3, 5, 6}) {
      struct stat st {};
      ::stat(registrati[i].c_str(), &st);
      righe.push_back({1, *_inizio_in_corso(fs::path(registrati[i]).filename()),
                       st.st_mtim.tv_sec + st.st_mtim.tv_nsec / 1e9, registrati[i], st.st_size,
                       ""});
    }
    _scrivi_indice(righe, nessuno);
    for (const SegmentoElencato& s : giornata_camera(1, 0, 1e10).segmenti) {
      const Traccia t = leggi_traccia(s.file).valore();
      segmenti_.push_back({s, static_cast<double>(t.durata) / t.scala});
      campioni_.push_back(t.campioni.size());
    }
  }
  static void TearDownTestSuite() {
    host_.reset();
    camera_.reset();
  }
  void SetUp() override {
    if (segmenti_.size() != 5) GTEST_SKIP() << "nessuna registrazione di prova: " << motivo_;
  }
  static SegmentoPiano& s(int i) { return segmenti_[static_cast<std::size_t>(i)]; }
  // The packet at which segment `i` starts in a stream that ends with the whole segment `ultimo`.
  static std::size_t primo_di(const Sonda& x, int i, int ultimo) {
    std::size_t n = x.pacchetti.size();
    for (int k = i; k <= ultimo; ++k) n -= campioni_[static_cast<std::size_t>(k)];
    return n;
  }

  static inline std::unique_ptr<testing::CameraRtsp> camera_;
  static inline std::unique_ptr<testing::HostDiProva> host_;
  static inline std::string motivo_;
  static inline std::vector<SegmentoPiano> segmenti_;  // the indexed ones, in order
  static inline std::vector<std::size_t> campioni_;    // samples of each
};

TEST_F(RiproduzioneE2eTest, StreamsRunsAsOneTimelineAndGapsAtTheirWallTime) {
  // From inside the first segment's second GOP; by default to the end of the run.
  const auto t0 = Orologio::now();
  Risposta r = api_flusso(richiesta(avvio(s(0)) + 1.5));
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  std::string dati = corpo(*r.flusso, true);
  const double ms = std::chrono::duration<double, std::milli>(Orologio::now() - t0).count();
  std::printf("primo frammento dopo %.1f ms\n", ms);
  EXPECT_LT(ms, 150);
  Sonda x = sonda(host_->cartella.percorso(), dati + corpo(*r.flusso));
  double inizio = std::stod(intestazione(r, "X-Nvr-Inizio"));
  EXPECT_NEAR(inizio, avvio(s(0)) + 1, 0.02);  // the key frame before: one a second
  EXPECT_EQ(intestazione(r, "X-Nvr-Buchi"), "[]");
  EXPECT_EQ(intestazione(r, "X-Nvr-Codec").substr(0, 5), "avc1.");
  EXPECT_TRUE(x.pacchetti[0].second);
  EXPECT_NEAR(x.durata, s(2).riga.fine - inizio, 0.1);
  // No frame lost or doubled at a join, and each segment's first frame at its wall start.
  for (std::size_t i = 1; i < x.pacchetti.size(); ++i)
    ASSERT_NEAR(x.pacchetti[i].first - x.pacchetti[i - 1].first, 0.04, 0.002) << i;
  for (int i : {1, 2})
    EXPECT_NEAR(inizio + x.pacchetti[primo_di(x, i, 2)].first, avvio(s(i)), 0.04);

  // Across the gap: reported, and the next run placed at its wall time.
  r = api_flusso(richiesta(s(2).riga.inizio + 0.5, s(4).riga.fine));
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  x = sonda(host_->cartella.percorso(), corpo(*r.flusso));
  inizio = std::stod(intestazione(r, "X-Nvr-Inizio"));
  const Json buchi = leggi_json(intestazione(r, "X-Nvr-Buchi")).value_or(Json());
  ASSERT_EQ(buchi.size(), 1u) << intestazione(r, "X-Nvr-Buchi");
  EXPECT_NEAR(buchi[0][0].get<double>(), s(2).riga.fine, 0.001);
  EXPECT_NEAR(buchi[0][1].get<double>(), s(3).riga.inizio, 0.001);  // the next track not read yet
  EXPECT_NEAR(inizio + x.pacchetti[primo_di(x, 3, 4)].first, avvio(s(3)), 0.04);
  EXPECT_TRUE(x.pacchetti[primo_di(x, 3, 4)].second);
}

TEST_F(RiproduzioneE2eTest, ExportPlaysFromAKeyFrameAndItsHashIsKnownAhead) {
  const double a = s(3).riga.fine - 0.5;  // across the gap
  const Richiesta q = richiesta(avvio(s(0)) + 1.5, a);
  Risposta impronta = api_impronta(q);
  ASSERT_EQ(impronta.status, 200) << impronta.corpo.dump();
  Risposta r = api_esporta(q);
  ASSERT_EQ(r.status, 200) << r.corpo.dump();
  const std::string dati = corpo(*r.flusso);
  EXPECT_EQ(dati.size(), r.flusso->lunghezza());
  EXPECT_EQ(corpo(*api_esporta(q).flusso), dati);  // the same bytes each time
  const Sonda x = sonda(host_->cartella.percorso(), dati);
  EXPECT_EQ(esegui("sha256sum " + x.file).substr(0, 64), impronta.corpo["sha256"]);
  EXPECT_EQ(intestazione(r, "X-Nvr-Sha256"), impronta.corpo["sha256"]);
  EXPECT_EQ(intestazione(r, "Content-Disposition"),
            "attachment; filename=\"" + impronta.corpo["nome"].get<std::string>() + "\"");
  EXPECT_EQ(impronta.corpo["nome"].get<std::string>().rfind("Ingresso_principale_20", 0), 0u);
  EXPECT_EQ(esegui("ffmpeg -nostdin -v error -i " + x.file + " -f null - 2>&1"), "");
  EXPECT_EQ(dati.substr(4, 4), "ftyp");
  EXPECT_LT(dati.find("moov"), dati.find("mdat"));
  EXPECT_TRUE(x.pacchetti[0].second);
  const double buco = avvio(s(3)) - s(2).riga.fine;
  EXPECT_NEAR(x.durata, a - std::stod(intestazione(r, "X-Nvr-Inizio")) - buco, 0.1);
  EXPECT_EQ(impronta.corpo["buchi"].size(), 1u);

  // An export read to its last byte remembers its hash for the next one.
  const Richiesta altra = richiesta(s(0).riga.inizio, a);
  const Sonda y = sonda(host_->cartella.percorso(), corpo(*api_esporta(altra).flusso));
  EXPECT_EQ(intestazione(api_esporta(altra), "X-Nvr-Sha256"),
            esegui("sha256sum " + y.file).substr(0, 64));
}

TEST_F(RiproduzioneE2eTest, BadInputAnswersOfEveryRoute) {
  const std::string da = std::to_string(s(0).riga.inizio), a = std::to_string(s(0).riga.fine);
  const std::string numeri = "Parametri non validi: da e a sono secondi dal 1970";
  const std::vector<std::tuple<std::string, std::string, std::string, int, std::string>> casi = {
      {"", da, a, 400, "Telecamera non valida"},
      {"0", da, a, 400, "Telecamera non valida"},
      {"1.5", da, a, 400, "Telecamera non valida"},
      {"7", da, a, 404, "Telecamera non trovata"},
      {"1", "ieri", a, 400, numeri},
      {"1", "nan", a, 400, numeri},
      {"1", da, "1e999", 400, numeri},
      {"1", a, da, 400, "La fine deve venire dopo l'inizio"},
      {"1", da, std::to_string(s(0).riga.inizio + 86401), 400,
       "Periodo troppo lungo: al massimo 24 ore"},
      {"1", "1000", "2000", 404, "Nessuna registrazione nel periodo scelto"},
      {"1", da, "", 400, numeri},  // the stream alone has a default end
  };
  for (const auto& [cam, da, a, status, messaggio] : casi)
    for (auto* rotta : {api_esporta, api_impronta, api_flusso}) {
      if (a.empty() && rotta == api_flusso) continue;
      Richiesta q;
      q.query = {{"cam", cam}, {"da", da}};
      if (!a.empty()) q.query["a"] = a;
      const Risposta r = rotta(q);
      EXPECT_EQ(r.status, status) << cam << " " << da << " " << a;
      EXPECT_EQ(r.corpo, Json({{"status", "error"}, {"message", messaggio}}));
    }
  // The archive's drive away.
  Config cfg = leggi_config();
  const std::string cartella = cfg.cartella;
  cfg.cartella = host_->cartella / "staccata";
  _salva_config(cfg);
  const Risposta r = api_flusso(richiesta(s(0).riga.inizio));
  cfg.cartella = cartella;
  _salva_config(cfg);
  EXPECT_EQ(r.status, 409);
}

TEST_F(RiproduzioneE2eTest, AClientLeavingMidStreamLeavesNothingOpen) {
  const int descrittori = voci("/proc/self/fd"), thread = voci("/proc/self/task");
  {
    Risposta r = api_flusso(richiesta(s(0).riga.inizio));
    ASSERT_EQ(r.status, 200);
    corpo(*r.flusso, true);  // the init and the first fragment's head, then its samples
    char c[4096];
    std::size_t n = 0;
    r.flusso->leggi(c, sizeof c, n, [] {});
    EXPECT_GT(voci("/proc/self/fd"), descrittori);  // a segment is open while it is sent
  }
  // The archive check's time limit runs in a short-lived thread of its own.
  for (int i = 0; i < 100 && voci("/proc/self/task") > thread; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(voci("/proc/self/fd"), descrittori);
  EXPECT_EQ(voci("/proc/self/task"), thread);
}

}  // namespace
}  // namespace nvr
