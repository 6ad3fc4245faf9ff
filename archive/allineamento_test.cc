#include "archive/allineamento.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "archive/sommari.h"
#include "core/db.h"
#include "core/stato.h"
#include "testing/ambiente.h"
#include "testing/righe_di_prova.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::aggiungi_registrazione;
using testing::CartellaTemporanea;
using testing::file_indicizzati;
using testing::HostDiProva;
using testing::scrivi_file;

TEST(MancantiTest, OneListingPerFolderDecidesForItsFiles) {
  CartellaTemporanea t;
  scrivi_file(t / "a/1.mp4", "x");
  scrivi_file(t / "a/3.mp4", "x");
  scrivi_file(t / "b/1.mp4", "x");
  scrivi_file(t / "file", "x");
  struct Caso {
    std::vector<std::string> percorsi;
    std::set<std::string> attesi;
  };
  const Caso casi[] = {
      {{t / "a/1.mp4", t / "a/2.mp4", t / "a/3.mp4", t / "b/2.mp4", t / "b/1.mp4"},
       {t / "a/2.mp4", t / "b/2.mp4"}},
      // A folder removed as a whole: all its files are gone.
      {{t / "tolta/1.mp4", t / "tolta/2.mp4", t / "a/1.mp4"},
       {t / "tolta/1.mp4", t / "tolta/2.mp4"}},
      // A folder that cannot be listed (here a file stands where it should be) says nothing.
      {{t / "file/1.mp4", t / "a/2.mp4"}, {t / "a/2.mp4"}},
      // A path asked twice.
      {{t / "a/2.mp4", t / "b/1.mp4", t / "a/2.mp4"}, {t / "a/2.mp4"}},
  };
  for (const Caso& c : casi) {
    EXPECT_EQ(_mancanti(c.percorsi), c.attesi) << ::testing::PrintToString(c.percorsi);
    // By position, each path answers for itself, repeats included.
    std::vector<bool> per_posizione = mancanti_per_posizione(c.percorsi);
    for (std::size_t i = 0; i < c.percorsi.size(); ++i)
      EXPECT_EQ(per_posizione.at(i), c.attesi.count(c.percorsi[i]) == 1) << c.percorsi[i];
  }
}

class AllineamentoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    _init_db();
    cfg_.cartella = archivio_.percorso();
  }

  // A USB destination whose mount point is a plain folder: the drive is not mounted.
  Config senza_unita() {
    Config cfg = cfg_;
    cfg.destinazione = {{"tipo", "usb"}, {"uuid", "uuid-a"}, {"mountpoint", punto_.percorso()}};
    return cfg;
  }

  HostDiProva h_;
  CartellaTemporanea archivio_;
  CartellaTemporanea punto_;
  Config cfg_;
};

// A drive that is not mounted counts as absent: the next test's rows stay while it is away.
TEST_F(AllineamentoTest, PresenceIsCheckedAndCachedPerConfigurationSignature) {
  EXPECT_TRUE(_archivio_presente(cfg_));
  fs::remove_all(archivio_.percorso());
  EXPECT_TRUE(_archivio_presente(cfg_)) << "entro 5 s il disco non si guarda di nuovo";
  EXPECT_FALSE(_archivio_presente(cfg_, 0));
  fs::create_directory(archivio_.percorso());
  Config altro = cfg_;
  altro.destinazione = {{"mountpoint", "/altrove"}};  // another signature, a new check
  EXPECT_TRUE(_archivio_presente(altro));
  azzera_allineamento_per_test();  // as if the answer were older than 5 s
  fs::remove_all(archivio_.percorso());
  EXPECT_FALSE(_archivio_presente(cfg_)) << "dopo 5 s si guarda di nuovo";
}

TEST_F(AllineamentoTest, RowsWithoutFilesAreDroppedOnlyWhileTheArchiveIsPresent) {
  scrivi_file(archivio_ / "cam/2024-05-01/10-00-00.mp4", "x");
  std::int64_t c = aggiungi_registrazione(1, 300, archivio_ / "cam/2024-05-01/10-05-00.mp4");
  aggiungi_registrazione(1, 100, archivio_ / "cam/2024-05-01/10-00-00.mp4");
  std::int64_t a = aggiungi_registrazione(2, 200, archivio_ / "tolta/2024-05-01/10-00-00.mp4");
  std::int64_t b = aggiungi_registrazione(2, 400, archivio_ / "tolta/2024-05-01/10-05-00.mp4");

  // The drive is away: every file looks missing, and none of its rows may go.
  EXPECT_TRUE(_righe_senza_file(senza_unita()).empty());
  EXPECT_EQ(_allinea(senza_unita()), 0);
  EXPECT_EQ(file_indicizzati().size(), 4u);

  std::vector<std::int64_t> attesi = {c, a, b};  // in the order read
  EXPECT_EQ(_righe_senza_file(cfg_), attesi);
  EXPECT_EQ(_allinea(cfg_), 3);
  EXPECT_EQ(file_indicizzati(),
            std::vector<std::string>{archivio_ / "cam/2024-05-01/10-00-00.mp4"});
}

// The overview's count remembers folders between requests; whatever changes, on disk or in the
// index, it must give the answer a full look gives.
TEST_F(AllineamentoTest, CountOfRowsWithoutFilesFollowsEveryChange) {
  using namespace std::chrono_literals;
  const std::string vecchia = archivio_ / "cam/2024-05-01";
  scrivi_file(vecchia + "/10-00-00.mp4", "x");
  scrivi_file(vecchia + "/10-05-00.mp4", "x");
  scrivi_file(archivio_ / "file", "x");
  aggiungi_registrazione(1, 100, vecchia + "/10-00-00.mp4");
  aggiungi_registrazione(1, 400, vecchia + "/10-05-00.mp4");
  const std::int64_t senza = aggiungi_registrazione(1, 700, vecchia + "/10-10-00.mp4");
  aggiungi_registrazione(2, 100, archivio_ / "tolta/2024-05-01/10-00-00.mp4");
  aggiungi_registrazione(2, 100, archivio_ / "file/10-00-00.mp4");  // not a folder: says nothing
  costruisci_sommari(_fuso());  // folder by folder from here on, as after the first start
  auto conta = [&] {
    // Timestamps of folders move in clock ticks: a change right after a look could hide.
    std::this_thread::sleep_for(30ms);
    const std::int64_t n = conta_righe_senza_file(cfg_, 0);
    EXPECT_EQ(n, static_cast<std::int64_t>(_righe_senza_file(cfg_).size()));
    return n;
  };
  EXPECT_EQ(conta(), 2);
  fs::remove(vecchia + "/10-00-00.mp4");
  EXPECT_EQ(conta(), 3);
  h_.sql("DELETE FROM nvr_registrazioni WHERE id=" + std::to_string(senza));
  EXPECT_EQ(conta(), 2) << "la cartella e' la stessa, le righe no";
  fs::remove_all(archivio_ / "cam");
  EXPECT_EQ(conta(), 3);
}

}  // namespace
}  // namespace nvr
