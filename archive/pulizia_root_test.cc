// The space phase of retention on a real tmpfs mount of known size: the free space it measures
// after each deletion is the filesystem's own. Which segments go, and when the phase gives up, is
// decided by the planner's table tests.
//
// Free space is measured in GB of 10^9 bytes rounded to one decimal, so only a deletion of about
// 100 MB shows: the files here are 10^8 bytes and the filesystems a few hundred MB. A tmpfs
// counts whole pages of 4096 bytes, hence the exact figures in the comments.
#include <gtest/gtest.h>

#include <filesystem>

#include "archive/pulizia.h"
#include "core/db.h"
#include "core/tempo.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "testing/ambiente.h"
#include "testing/righe_di_prova.h"
#include "testing/tmpfs_di_prova.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::aggiungi_registrazione;
using testing::file_indicizzati;
using testing::scrivi_byte;
using testing::TmpfsDiProva;

constexpr long long kCentoMega = 100'000'000;  // 24415 pages: 100003840 bytes
constexpr double kOra = 3600;

class PuliziaRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount di tmpfs)";
    _init_db();
  }

  std::string segmento(const Config& cfg, const std::string& relativo, long long byte, double fa,
                       std::int64_t cam = 1) {
    std::string p = cfg.cartella + "/" + relativo;
    scrivi_byte(p, byte);
    aggiungi_registrazione(cam, ora_ - fa, p);
    return p;
  }

  testing::HostDiProva h_;
  double ora_ = _ora();
};

TEST_F(PuliziaRootTest, OldestSegmentsGoUntilTheFloorIsReached) {
  TmpfsDiProva disco("size=400000000");  // 97657 pages: 0.4 GB
  ASSERT_TRUE(disco.montato()) << disco.errore();
  // The archive is a share mounted on the disk, with nothing old enough to go for age.
  Config cfg;
  cfg.cartella = disco / "archivio";
  cfg.destinazione = {{"tipo", "rete"}, {"mountpoint", disco.percorso()}};
  cfg.giorni = 30;
  cfg.spazio_min_gb = 0.15;
  // Inserted out of order: the start time decides, across cameras.
  std::string terzo = segmento(cfg, "cam1/2024-01-02/10-00-00.mp4", kCentoMega, 2 * kOra);
  std::string primo = segmento(cfg, "cam1/2024-01-01/10-00-00.mp4", kCentoMega, 4 * kOra);
  std::string esterno = disco / "altro/vecchio.mp4";  // not the archive's: filling the disk
  scrivi_byte(esterno, 80'000'000);                     // 19532 pages
  std::string secondo = segmento(cfg, "cam2/2024-01-01/10-00-00.mp4", kCentoMega, 3 * kOra, 2);
  ASSERT_EQ(_spazio(disco.percorso())->libero_gb, 0.0);  // 19988480 bytes free

  _pulizia(cfg);

  // 0.1 GB free after the first deletion, 0.2 after the second: enough.
  EXPECT_EQ(file_indicizzati(), (std::vector<std::string>{terzo}));
  EXPECT_FALSE(fs::exists(primo));
  EXPECT_FALSE(fs::exists(secondo));
  EXPECT_EQ(_spazio(disco.percorso())->libero_gb, 0.2);
}

}  // namespace
}  // namespace nvr
