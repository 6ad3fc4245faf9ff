#include "archive/indice.h"
#include "archive/posizione.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <set>
#include <thread>

#include "core/db.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "testing/ambiente.h"
#include "testing/processi.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::HostDiProva;

enum class Moov { inizio, fine, nessuno };

Camera camera(CamId id, const std::string& nome) {
  Camera c;
  c.id = id;
  c.nome = nome;
  return c;
}

void imposta_mtime(const std::string& p, double ts) {
  timespec t{static_cast<time_t>(ts), static_cast<long>((ts - static_cast<time_t>(ts)) * 1e9)};
  timespec tempi[2] = {t, t};
  ASSERT_EQ(::utimensat(AT_FDCWD, p.c_str(), tempi, 0), 0) << p;
}

// A file of `dimensione` bytes with the "moov" box where asked, last modified `eta` seconds ago.
void segmento(const std::string& p, std::size_t dimensione, Moov moov = Moov::inizio,
              double eta = 60) {
  std::string dati(dimensione, 'x');
  if (moov == Moov::inizio) dati.replace(4, 4, "moov");
  if (moov == Moov::fine) dati.replace(dimensione - 8, 4, "moov");
  testing::scrivi_file(p, dati);
  imposta_mtime(p, _ora() - eta);
}

class IndiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // In-progress names follow the machine's clock; fix it so that the figures below hold.
    tz_.emplace("TZ", "Europe/Rome");
    ::tzset();
    _init_db();
    cfg.cartella = radice.percorso();
    cams = {camera(1, "Garage")};
  }
  void TearDown() override {
    tz_.reset();
    ::tzset();
  }

  std::string in_corso(const std::string& nome) { return radice / ("Garage/in_corso/" + nome); }
  std::string giorno(const std::string& nome) { return radice / ("Garage/2024-05-01/" + nome); }

  std::vector<RigaIndice> righe() {
    std::vector<RigaIndice> r;
    Connessione c(host.db_file);
    c.scorri(
        "SELECT cam_id, inizio, fine, file, dimensione, motivo FROM nvr_registrazioni "
        "ORDER BY file",
        {}, [&](const Riga& x) {
          r.push_back({come_intero(x[0]), come_reale(x[1]), come_reale(x[2]), come_testo(x[3]),
                       come_intero(x[4]), come_testo(x[5])});
        });
    return r;
  }
  std::optional<RigaIndice> riga(const std::string& file) {
    for (const RigaIndice& r : righe())
      if (r.file == file) return r;
    return std::nullopt;
  }
  // A run after the previous one must find nothing left to do, deep or not.
  void nessun_lavoro_rimasto() {
    auto stato = [&] {
      std::string s;
      for (const RigaIndice& r : righe())
        s += r.file + " " + std::to_string(r.inizio) + " " + std::to_string(r.fine) + "\n";
      for (const auto& e : fs::recursive_directory_iterator(radice.percorso()))
        s += e.path().string() + "\n";
      return s;
    };
    const std::string prima = stato();
    _indicizza(cfg, cams, true);
    _indicizza(cfg, cams);
    EXPECT_EQ(stato(), prima);
  }

  HostDiProva host;
  CartellaTemporanea radice;
  Config cfg;
  std::vector<Camera> cams;

 private:
  std::optional<testing::VariabileDiProva> tz_;
};

TEST_F(IndiceTest, AgeSizeAndCompletenessDecideEachInProgressFile) {
  enum Esito { indicizzato, lasciato, cancellato };
  struct Caso {
    std::string nome;
    std::size_t dimensione;
    Moov moov;
    double eta;
    Esito atteso;
    std::string finale;  // where an indexed one goes: 12:00:0S in Rome, 10:00:0S UTC
    double inizio;
  } casi[] = {
      {"20240501_120000.mp4", 2048, Moov::inizio, 14, lasciato, "", 0},  // may still be written
      {"20240501_120001.mp4", 2048, Moov::inizio, 16, indicizzato, "12-00-01.mp4", 1714557601},
      {"20240501_120002.mp4", 1023, Moov::inizio, 60, cancellato, "", 0},
      {"20240501_120004.mp4", 200 * 1024, Moov::fine, 60, indicizzato, "12-00-04.mp4", 1714557604},
      {"20240501_120005.mp4", 200 * 1024, Moov::nessuno, 60, cancellato, "", 0},
      {"prova.mp4", 10, Moov::nessuno, 60, lasciato, "", 0},  // not a recorder's name
  };
  for (const Caso& c : casi) segmento(in_corso(c.nome), c.dimensione, c.moov, c.eta);
  _indicizza(cfg, cams);

  std::size_t indicizzati = 0;
  for (const Caso& c : casi) {
    SCOPED_TRACE(c.nome);
    EXPECT_EQ(fs::exists(in_corso(c.nome)), c.atteso == lasciato);
    if (c.atteso != indicizzato) continue;
    ++indicizzati;
    std::optional<RigaIndice> r = riga(giorno(c.finale));
    ASSERT_TRUE(r);
    EXPECT_DOUBLE_EQ(r->inizio, c.inizio);
  }
  EXPECT_EQ(righe().size(), indicizzati);
  nessun_lavoro_rimasto();
}

TEST_F(IndiceTest, EndIsAtLeastOneSecondAfterStart) {
  segmento(in_corso("20240501_120000.mp4"), 2048);
  imposta_mtime(in_corso("20240501_120000.mp4"), 1714557600 - 100);
  _indicizza(cfg, cams);
  ASSERT_EQ(righe().size(), 1u);
  EXPECT_DOUBLE_EQ(righe()[0].fine, 1714557601);
}

TEST_F(IndiceTest, InProgressNamesUseTheMachineClockDayFoldersTheHostZone) {
  host.imposta_zona("America/New_York");
  Zona ny = zona_di("America/New_York");
  EXPECT_EQ(_inizio_in_corso("20230229_000000.mp4"), std::nullopt);
  EXPECT_EQ(_inizio_archiviato("2024-03-10", "12-00-00_12.mp4", ny), 1710086400);
  EXPECT_EQ(_inizio_archiviato("2024-11-03", "01-30-00.mp4", ny), 1730611800);  // first 01:30
  EXPECT_EQ(_inizio_archiviato("2024-02-30", "12-00-00.mp4", ny), std::nullopt);

  // On disk: a segment recorded at 12:00 Rome time is filed at 06:00 in New York; a file found
  // in a New York day folder is dated in New York (EDT already on 10 March).
  segmento(in_corso("20240501_120000.mp4"), 2048);
  segmento(radice / "Garage/2024-03-10/12-00-00.mp4", 2048);
  _indicizza(cfg, cams);
  ASSERT_TRUE(riga(giorno("06-00-00.mp4")));
  EXPECT_DOUBLE_EQ(riga(giorno("06-00-00.mp4"))->inizio, 1714557600);
  EXPECT_EQ(righe().size(), 1u);  // day folders are looked at by deep runs only
  _indicizza(cfg, cams, true);
  std::optional<RigaIndice> adottata = riga(radice / "Garage/2024-03-10/12-00-00.mp4");
  ASSERT_TRUE(adottata);
  EXPECT_DOUBLE_EQ(adottata->inizio, 1710086400);
}

TEST_F(IndiceTest, DeepRunAdoptsFinishedFilesOfTheCameraLegacyAndOrphanFolders) {
  segmento(giorno("12-00-00.mp4"), 2048, Moov::nessuno);
  segmento(giorno("12-00-02.mp4"), 2048, Moov::inizio, 5);
  segmento(giorno("12-00-03.mp4"), 2048);
  const std::string legacy = radice / "cam_1/2024-05-01/12-00-00.mp4";
  segmento(legacy, 2048);
  segmento(radice / "cam_1/20240501_130000.mp4", 2048);  // flat legacy files are not adopted
  const std::string orfano = radice / "cam_7/2024-05-01/12-00-00.mp4";  // camera 7 is not known
  segmento(orfano, 2048);
  fs::create_directories(radice / "cam_-8");
  _indicizza(cfg, cams, true);

  std::vector<std::pair<std::string, CamId>> adottati;
  for (const RigaIndice& r : righe()) adottati.emplace_back(r.file, r.cam_id);
  EXPECT_EQ(adottati, (std::vector<std::pair<std::string, CamId>>{
                          {giorno("12-00-03.mp4"), 1}, {legacy, 1}, {orfano, 7}}));
  ASSERT_EQ(cams.size(), 2u);
  for (const char* n : {"12-00-00.mp4", "12-00-02.mp4"})
    EXPECT_TRUE(fs::exists(giorno(n))) << n;  // unfinished day-folder files are left alone
  EXPECT_TRUE(fs::exists(radice / "cam_1/20240501_130000.mp4"));
  nessun_lavoro_rimasto();
}

// A deep run remembers the day folders it found complete; a name added later changes the
// folder, which the next deep run reads again.
TEST_F(IndiceTest, DeepRunReadsAgainADayFolderThatChanged) {
  segmento(giorno("12-00-00.mp4"), 2048);
  std::this_thread::sleep_for(std::chrono::milliseconds(3100));  // the folder's times settle
  _indicizza(cfg, cams, true);
  segmento(giorno("12-05-00.mp4"), 2048);
  std::this_thread::sleep_for(std::chrono::milliseconds(3100));  // not only "just changed"
  _indicizza(cfg, cams, true);
  EXPECT_EQ(righe().size(), 2u);
}

TEST_F(IndiceTest, FailedMoveIsIndexedInPlaceLoggedOnceRetriedOnDeepRuns) {
  testing::scrivi_file(radice / "Garage/2024-05-01", "a file where the day folder goes");
  const std::string p = in_corso("20240501_120000.mp4");
  segmento(p, 2048);
  ::testing::internal::CaptureStdout();
  _indicizza(cfg, cams);
  _indicizza(cfg, cams, true);
  std::string uscita = ::testing::internal::GetCapturedStdout();
  auto prima = uscita.find(" non spostato in ");
  EXPECT_NE(prima, std::string::npos);
  EXPECT_EQ(uscita.find(" non spostato in ", prima + 1), std::string::npos) << "una volta sola";
  ASSERT_EQ(righe().size(), 1u);
  EXPECT_EQ(righe()[0].file, p);
  EXPECT_TRUE(fs::exists(p));

  // Once the way is clear, a normal run still leaves it; a deep one moves it and its row.
  fs::remove(radice / "Garage/2024-05-01");
  _indicizza(cfg, cams);
  EXPECT_TRUE(fs::exists(p));
  _indicizza(cfg, cams, true);
  ASSERT_EQ(righe().size(), 1u);
  EXPECT_EQ(righe()[0].file, giorno("12-00-00.mp4"));
  EXPECT_FALSE(non_spostabile(p));
}

// The recorder's folder is named through a symbolic link: its newest file is still its own.
TEST_F(IndiceTest, NewestFileOfTheRunningRecorderIsLeftAlone) {
  fs::create_directories(radice / "Garage");
  fs::create_directory_symlink(radice / "Garage", radice / "collegamento");
  for (const char* n : {"20240501_120000.mp4", "20240501_120100.mp4", "20240501_120200.mp4"})
    segmento(in_corso(n), 2048);
  _indicizza(cfg, cams, false, {{1, {radice / "collegamento/in_corso", "evento"}}});
  EXPECT_TRUE(fs::exists(in_corso("20240501_120200.mp4")));
  EXPECT_EQ(righe().size(), 2u);
  for (const RigaIndice& r : righe()) EXPECT_EQ(r.motivo, "evento");
}

TEST_F(IndiceTest, RowsAreWrittenInBatchesOfTwentyFiveAndFailuresPropagate) {
  for (int i = 0; i < 30; ++i) {
    char nome[32];
    std::snprintf(nome, sizeof nome, "20240501_1200%02d.mp4", i);
    segmento(in_corso(nome), 1024);
  }
  host.sql(
      "CREATE TRIGGER rifiuta BEFORE INSERT ON nvr_registrazioni WHEN NEW.file LIKE "
      "'%12-00-29.mp4' BEGIN SELECT RAISE(ABORT, 'rifiutata'); END");
  EXPECT_THROW(_indicizza(cfg, cams), ErroreDb);
  EXPECT_EQ(righe().size(), 25u);  // the first batch was committed, the second rolled back

  // The moved files without a row are found again by the next deep run (so the failed run let
  // go of the index: a second caller would have returned at once).
  host.sql("DROP TRIGGER rifiuta");
  _indicizza(cfg, cams, true);
  EXPECT_EQ(righe().size(), 30u);
}

TEST_F(IndiceTest, EarlierInProgressFoldersAreDrainedAndRemoved) {
  const std::string vuotata = radice / "Vecchio/in_corso";
  const std::string giovane = radice / "Giovane/in_corso";
  segmento(vuotata + "/20240501_120000.mp4", 2048);
  segmento(giovane + "/20240501_120200.mp4", 2048, Moov::inizio, 3);
  for (const std::string& c : {vuotata, giovane, radice / "Sparita/in_corso"})
    aggiungi_in_corso_precedente(1, c);
  _indicizza(cfg, cams);

  EXPECT_TRUE(riga(giorno("12-00-00.mp4")));
  EXPECT_FALSE(fs::exists(radice / "Vecchio"));  // its camera folder was left empty too
  EXPECT_TRUE(fs::exists(giovane + "/20240501_120200.mp4"));
  EXPECT_EQ(in_corso_precedenti(1), std::set<std::string>{giovane});
}

}  // namespace
}  // namespace nvr
