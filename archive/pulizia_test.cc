#include "archive/pulizia.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "archive/sommari.h"
#include "core/db.h"
#include "testing/ambiente.h"
#include "testing/righe_di_prova.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::aggiungi_evento;
using testing::aggiungi_registrazione;
using testing::CartellaTemporanea;
using testing::file_indicizzati;
using testing::HostDiProva;
using testing::scrivi_file;
using testing::ts_eventi;

constexpr double kGiorno = 86400;

// Run twice: on an index as the first start after an upgrade finds it (every row read at once),
// and with the per-folder counts built (rows read folder by folder).
class PuliziaTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    _init_db();
    cfg_.cartella = archivio_.percorso();
    cfg_.giorni = 0;
    cfg_.spazio_min_gb = 0;
  }

  // A segment file with its row.
  std::string segmento(const std::string& relativo, double inizio, std::int64_t cam = 1) {
    std::string p = archivio_ / relativo;
    scrivi_file(p, "video");
    aggiungi_registrazione(cam, inizio, p);
    return p;
  }

  void sommari_se_chiesti() {
    if (GetParam()) costruisci_sommari(_fuso());
  }

  HostDiProva h_;
  CartellaTemporanea archivio_;
  CartellaTemporanea fuori_;
  Config cfg_;
};

// Which rows go is the planner's table test; here the files and folders they leave.
TEST_P(PuliziaTest, OldSegmentsGoWithTheFoldersTheyEmpty) {
  const double limite = 1'700'000'000;
  segmento("cam/2023-11-01/10-00-00.mp4", limite - 1);
  std::string nuovo = segmento("cam/2023-11-15/08-00-00.mp4", limite + kGiorno);
  scrivi_file(archivio_ / "altra/2023-11-02/nota.txt", "resta");
  segmento("altra/2023-11-02/09-00-00.mp4", limite - kGiorno, 2);
  fs::create_directories(archivio_ / "vuota/in_corso");
  segmento("vuota/2023-10-01/00-00-00.mp4", limite - 40 * kGiorno);
  aggiungi_evento(1, limite - 1);
  aggiungi_evento(2, limite + 1);

  sommari_se_chiesti();
  _pulizia_prima_di(cfg_, limite);

  EXPECT_EQ(file_indicizzati(), (std::vector<std::string>{nuovo}));
  EXPECT_FALSE(fs::exists(archivio_ / "cam/2023-11-01"));
  EXPECT_TRUE(fs::exists(archivio_ / "altra/2023-11-02/nota.txt"));
  // The day folder goes, the camera folder with its recorder's in-progress folder stays.
  EXPECT_FALSE(fs::exists(archivio_ / "vuota/2023-10-01"));
  EXPECT_TRUE(fs::exists(archivio_ / "vuota/in_corso"));
  EXPECT_EQ(ts_eventi(), (std::vector<double>{limite + 1}));
}

TEST_P(PuliziaTest, VanishedFilesLoseTheirRowsAndOutsideFilesAreNeverTouched) {
  const double limite = 1'700'000'000;
  std::string sparito = archivio_ / "cam/2023-11-20/10-00-00.mp4";
  aggiungi_registrazione(1, limite + kGiorno, sparito);  // recent, but its file is gone
  std::string esterno = fuori_ / "vecchio.mp4";
  scrivi_file(esterno, "non mio");
  aggiungi_registrazione(1, limite - 30 * kGiorno, esterno);
  // A link inside the archive to a file outside: the link is the archive's, the file is not.
  fs::create_directories(archivio_ / "cam/2023-11-01");
  std::string collegamento = archivio_ / "cam/2023-11-01/10-00-00.mp4";
  fs::create_symlink(esterno, collegamento);
  aggiungi_registrazione(1, limite - 20 * kGiorno, collegamento);
  // A path that only looks inside.
  std::string furbo =
      archivio_ / "../" + fs::path(fuori_.percorso()).filename().string() + "/furbo.mp4";
  scrivi_file(furbo, "non mio");
  aggiungi_registrazione(1, limite - 10 * kGiorno, furbo);
  cfg_.spazio_min_gb = 1e9;  // every file of the archive would go for space

  sommari_se_chiesti();
  _pulizia_prima_di(cfg_, limite);

  EXPECT_EQ(file_indicizzati(), (std::vector<std::string>{esterno, furbo}));
  EXPECT_EQ(testing::leggi_file(esterno), "non mio");
  EXPECT_EQ(testing::leggi_file(furbo), "non mio");
  EXPECT_FALSE(fs::is_symlink(collegamento));
}

TEST_P(PuliziaTest, AbsentArchiveIsLeftExactlyAsItIs) {
  CartellaTemporanea punto;  // the drive's mount point, with nothing mounted on it
  cfg_.destinazione = {{"tipo", "usb"}, {"uuid", "uuid-a"}, {"mountpoint", punto.percorso()}};
  cfg_.spazio_min_gb = 1e9;
  std::string vecchio = segmento("cam/2020-01-01/10-00-00.mp4", 1'577'869'200);
  aggiungi_registrazione(1, 1'577'869'500, archivio_ / "cam/2020-01-01/10-05-00.mp4");
  aggiungi_evento(1, 1'577'869'200);

  sommari_se_chiesti();
  _pulizia(cfg_);

  EXPECT_TRUE(fs::exists(vecchio));
  EXPECT_EQ(file_indicizzati().size(), 2u);
  EXPECT_EQ(ts_eventi().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(ConESenzaSommari, PuliziaTest, ::testing::Bool());

}  // namespace
}  // namespace nvr
