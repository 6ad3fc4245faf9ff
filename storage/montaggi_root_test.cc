// Mounts, root rights and folder probes as they behave for real: tmpfs mounts of known sizes,
// read-only mounts, and a server running as an unprivileged user.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "core/processo.h"
#include "core/stato.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "testing/azzera.h"
#include "testing/ambiente.h"
#include "testing/sonda.h"
#include "testing/tmpfs_di_prova.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::scrivi_byte;
using testing::TmpfsDiProva;

// What an unprivileged server answers: "ok|message" after mounting a folder, and
// "code|message|owned" for root rights and taking a folder over.
const bool kSondaMount =
    testing::registra_sonda("NVR_SONDA_DOPO_MOUNT", [](const std::string& punto) {
      auto [ok, msg] = _dopo_mount(punto, "Cartella di rete");
      return std::to_string(ok) + "|" + msg;
    });
const bool kSondaRadice =
    testing::registra_sonda("NVR_SONDA_RADICE", [](const std::string& cartella) {
      RisultatoComando r = _radice({"true"}, 10);
      return std::to_string(r.codice) + "|" + r.err + "|" + std::to_string(_intesta(cartella));
    });
const std::string kPath = "PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin";

const char kSolaLettura[] =
    " montata in sola lettura: se e' una chiavetta NTFS non e' stata espulsa bene da Windows "
    "(collegala a Windows, \"Rimuovi in sicurezza\"), oppure formattala in exFAT o ext4";

class MontaggiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount di tmpfs)";
    azzera_stato_per_test();
  }
  void TearDown() override { azzera_stato_per_test(); }
};

#define MONTA(nome, ...)          \
  TmpfsDiProva nome(__VA_ARGS__); \
  ASSERT_TRUE(nome.montato()) << nome.errore()

TEST_F(MontaggiTest, MountPointsAndTheMountHoldingAPath) {
  MONTA(t, "size=1m");
  EXPECT_TRUE(_ismount(t.percorso()));
  fs::create_directories(t / "a/b");
  EXPECT_FALSE(_ismount(t / "a"));
  CartellaTemporanea altrove;
  fs::create_directory_symlink(t.percorso(), altrove / "link");
  EXPECT_FALSE(_ismount(altrove / "link"));  // a link to a mount point is not one

  EXPECT_EQ(_radice_montaggio(t.percorso()), t.percorso());
  EXPECT_EQ(_radice_montaggio(t / "a/b"), t.percorso());
  EXPECT_EQ(_radice_montaggio(t / "a/b/non_ancora_creata"), t.percorso());
  EXPECT_EQ(_radice_montaggio(altrove / "link/a"), t.percorso());
  EXPECT_EQ(_radice_montaggio(altrove.percorso()), _radice_montaggio("/tmp"));
}

// A tmpfs counts whole pages of 4096 bytes: the figures below are worked out in pages.
TEST_F(MontaggiTest, SpaceFiguresRoundToOneDecimalOfGigabyteAndTheShareHalfToEven) {
  struct Caso {
    const char* opzioni;
    long long byte;  // written into one file
    double totale_gb, libero_gb;
    int usato_pct;
  } casi[] = {
      // 305176 pages: 1.250000896 GB, just above a half; then 1.189998592 GB left, 4.8% used.
      {"size=1250000896", 0, 1.3, 1.3, 0},
      {"size=1250000896", 60000000, 1.3, 1.2, 5},
      // 200 pages: 25 used are 12.5%, 27 are 13.5%, 26 are 13%.
      {"size=819200", 102400, 0.0, 0.0, 12},
      {"size=819200", 110592, 0.0, 0.0, 14},
      {"size=819200", 106496, 0.0, 0.0, 13},
      {"size=819200", 819200, 0.0, 0.0, 100},
      {"size=0", 4096, 0.0, 0.0, 0},  // without a limit tmpfs reports no blocks at all
  };
  for (const Caso& c : casi) {
    SCOPED_TRACE(std::string(c.opzioni) + ", " + std::to_string(c.byte) + " byte");
    MONTA(t, c.opzioni);
    if (c.byte) scrivi_byte(t / "f", c.byte);
    auto sp = _spazio(c.byte ? t / "f" : t.percorso());  // any path on the filesystem will do
    ASSERT_TRUE(sp.has_value());
    EXPECT_EQ(sp->totale_gb, c.totale_gb);
    EXPECT_EQ(sp->libero_gb, c.libero_gb);
    EXPECT_EQ(sp->usato_pct, c.usato_pct);
  }
}

TEST_F(MontaggiTest, ReadOnlyMountIsRefusedAndUnmounted) {
  MONTA(t, "size=1m", /*sola_lettura=*/true);
  EXPECT_TRUE(_sola_lettura(t.percorso()));
  EXPECT_FALSE(_scrivibile(t.percorso()));
  EXPECT_FALSE(_intesta(t.percorso()));  // chown and chmod run, and fail, on a read-only filesystem
  auto [creata, perche] = _mkdir(t / "sotto");
  EXPECT_FALSE(creata);
  EXPECT_FALSE(perche.empty());
  auto [ok, msg] = _dopo_mount(t.percorso(), "Unita'");
  EXPECT_FALSE(ok);
  EXPECT_EQ(msg, std::string("Unita'") + kSolaLettura);
  EXPECT_FALSE(_ismount(t.percorso())) << "il montaggio in sola lettura resta al suo posto";
}

TEST_F(MontaggiTest, UnprivilegedServerIsToldWhatItLacks) {
  MONTA(t, "size=1m,mode=0755");  // root's own: user nobody cannot write nor take it over
  ::chmod(fs::path(t.percorso()).parent_path().c_str(), 0755);
  if (programma_presente("sudo")) {
    EXPECT_EQ(testing::sonda_come_nobody({kPath, "NVR_SONDA_RADICE=" + t.percorso()}),
              "126|il server gira come utente nobody (non root) e sudo chiede la password: avvialo "
              "con  sudo  oppure dal servizio zuna_os (systemctl start zuna_os)|0");
  }
  CartellaTemporanea senza_sudo;  // a PATH with env only
  ::chmod(senza_sudo.percorso().c_str(), 0755);
  ::symlink("/usr/bin/env", (senza_sudo / "env").c_str());
  EXPECT_EQ(testing::sonda_come_nobody(
                {"PATH=" + senza_sudo.percorso(), "NVR_SONDA_RADICE=" + t.percorso()}),
            "126|il server gira come utente nobody (non root) e sudo non c'e': avvialo come "
            "root|0");

  EXPECT_EQ(testing::sonda_come_nobody({kPath, "NVR_SONDA_DOPO_MOUNT=" + t.percorso()}),
            "0|Cartella di rete montata ma non scrivibile dall'utente nobody con cui gira il "
            "server: controlla i permessi (sul NAS: utente con diritto di scrittura; NFS: "
            "no_root_squash)");
  // The user tried to unmount it again but had no right to: it is still there.
  EXPECT_TRUE(_ismount(t.percorso()));
}

}  // namespace
}  // namespace nvr
