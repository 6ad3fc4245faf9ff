// Reconciliation against a real mount that goes away, and a folder the server's user may not
// list.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "archive/allineamento.h"
#include "core/db.h"
#include "core/stato.h"
#include "storage/comando.h"
#include "testing/ambiente.h"
#include "testing/righe_di_prova.h"
#include "testing/sonda.h"
#include "testing/tmpfs_di_prova.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::aggiungi_registrazione;
using testing::CartellaTemporanea;
using testing::file_indicizzati;
using testing::scrivi_file;

// What _mancanti answers to an unprivileged server for these paths (one a line), one a line.
const bool kSonda = testing::registra_sonda("NVR_SONDA_MANCANTI", [](const std::string& elenco) {
  std::vector<std::string> percorsi;
  std::istringstream righe(elenco);
  for (std::string r; std::getline(righe, r);) percorsi.push_back(r);
  std::string fuori;
  for (const std::string& p : _mancanti(percorsi)) fuori += p + "\n";
  return fuori;
});

class AllineamentoRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount di tmpfs, altri utenti)";
  }
};

TEST_F(AllineamentoRootTest, ShareThatGoesAwayKeepsEveryRow) {
  testing::HostDiProva h;
  _init_db();
  testing::TmpfsDiProva condivisa("size=1m");
  ASSERT_TRUE(condivisa.montato()) << condivisa.errore();
  Config cfg;
  cfg.cartella = condivisa / "nvr";
  cfg.destinazione = {{"tipo", "rete"}, {"mountpoint", condivisa.percorso()}};
  std::string resta = cfg.cartella + "/cam/2024-05-01/10-00-00.mp4";
  std::string tolto = cfg.cartella + "/cam/2024-05-01/10-05-00.mp4";
  scrivi_file(resta, "x");
  scrivi_file(tolto, "x");
  aggiungi_registrazione(1, 100, resta);
  std::int64_t id = aggiungi_registrazione(1, 400, tolto);
  fs::remove(tolto);
  EXPECT_EQ(_righe_senza_file(cfg), std::vector<std::int64_t>{id});

  // The share drops; the server's folder reappears on the bare mount point, empty.
  ASSERT_EQ(::umount2(condivisa.percorso().c_str(), MNT_DETACH), 0);
  fs::create_directories(cfg.cartella);
  azzera_allineamento_per_test();  // look again now
  EXPECT_FALSE(_archivio_presente(cfg));
  EXPECT_TRUE(_righe_senza_file(cfg).empty());
  EXPECT_EQ(_allinea(cfg), 0);
  EXPECT_EQ(file_indicizzati(), (std::vector<std::string>{resta, tolto}));
}

TEST_F(AllineamentoRootTest, FolderTheUserMayNotListMakesNoneMissing) {
  CartellaTemporanea t;
  ::chmod(t.percorso().c_str(), 0755);
  scrivi_file(t / "chiusa/1.mp4", "x");
  ::chmod((t / "chiusa").c_str(), 0700);  // root's: user nobody gets "permission denied"
  scrivi_file(t / "aperta/1.mp4", "x");
  ::chmod((t / "aperta").c_str(), 0755);
  std::string percorsi;
  for (const char* p :
       {"chiusa/1.mp4", "chiusa/2.mp4", "aperta/1.mp4", "aperta/2.mp4", "tolta/1.mp4"})
    percorsi += t / p + "\n";

  EXPECT_EQ(testing::sonda_come_nobody({"NVR_SONDA_MANCANTI=" + percorsi}),
            t / "aperta/2.mp4" + "\n" + t / "tolta/1.mp4" + "\n");
}

}  // namespace
}  // namespace nvr
