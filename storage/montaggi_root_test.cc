// Mount inspection on real tmpfs mounts of known sizes, and the acceptance check of a fresh mount
// as root and as an unprivileged user.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "core/stato.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "testing/ambiente.h"
#include "testing/tmpfs_di_prova.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::scrivi_byte;
using testing::TmpfsDiProva;

// When this binary is started again as another user with NVR_SONDA_DOPO_MOUNT set, it only
// answers what _dopo_mount says there, and leaves before any test runs.
const bool kSonda = [] {
  const char* punto = std::getenv("NVR_SONDA_DOPO_MOUNT");
  if (!punto) return false;
  auto [ok, msg] = _dopo_mount(punto, "Cartella di rete");
  std::printf("%d|%s\n", ok ? 1 : 0, msg.c_str());
  std::fflush(stdout);
  std::_Exit(0);
}();

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

TEST_F(MontaggiTest, SpaceFiguresAreRoundedToOneDecimalOfGigabyte) {
  // 305176 pages of 4096 bytes: 1.250000896 GB, just above a half, so it reads 1.3.
  MONTA(t, "size=1250000896");
  auto sp = _spazio(t.percorso());
  ASSERT_TRUE(sp.has_value());
  EXPECT_EQ(sp->totale_gb, 1.3);
  EXPECT_EQ(sp->libero_gb, 1.3);
  EXPECT_EQ(sp->usato_pct, 0);

  scrivi_byte(t / "f", 60000000);  // 14649 pages: 1.189998592 GB left, 4.8% used
  sp = _spazio(t / "f");           // any path on the filesystem will do
  ASSERT_TRUE(sp.has_value());
  EXPECT_EQ(sp->totale_gb, 1.3);
  EXPECT_EQ(sp->libero_gb, 1.2);
  EXPECT_EQ(sp->usato_pct, 5);
}

TEST_F(MontaggiTest, UsedShareRoundsAnExactHalfToEven) {
  MONTA(t, "size=819200");  // 200 pages
  struct Caso {
    long long byte;
    int atteso;
  };
  const Caso casi[] = {{102400, 12},  // 25 pages: 12.5
                       {110592, 14},  // 27 pages: 13.5
                       {106496, 13},  // 26 pages: 13.0
                       {819200, 100}};
  for (const Caso& c : casi) {
    scrivi_byte(t / "f", c.byte);
    auto sp = _spazio(t.percorso());
    ASSERT_TRUE(sp.has_value());
    EXPECT_EQ(sp->usato_pct, c.atteso) << c.byte << " byte";
    EXPECT_EQ(sp->totale_gb, 0.0);
  }
}

TEST_F(MontaggiTest, UnlimitedFilesystemReportsZeroSizeAndZeroUse) {
  MONTA(t, "size=0");  // tmpfs without a limit reports no blocks at all
  auto sp = _spazio(t.percorso());
  ASSERT_TRUE(sp.has_value());
  EXPECT_EQ(sp->totale_gb, 0.0);
  EXPECT_EQ(sp->libero_gb, 0.0);
  EXPECT_EQ(sp->usato_pct, 0);
}

TEST_F(MontaggiTest, SafeSpaceReadingIsCachedForOneFolder) {
  MONTA(t, "size=819200");
  CartellaTemporanea altra;
  ASSERT_EQ(_spazio_sicuro(t.percorso())->usato_pct, 0);
  scrivi_byte(t / "f", 102400);
  EXPECT_EQ(_spazio_sicuro(t.percorso())->usato_pct, 0) << "entro 30 s vale la misura in cache";
  EXPECT_EQ(_spazio_sicuro(t.percorso(), 0)->usato_pct, 12) << "fresco 0 misura di nuovo";

  scrivi_byte(t / "f", 110592);
  ASSERT_TRUE(_spazio_sicuro(altra.percorso()).has_value());  // replaces the single entry
  EXPECT_EQ(_spazio_sicuro(t.percorso())->usato_pct, 14);

  // A cached reading older than `fresco` is measured again.
  _cache_spazio.modifica([](CacheSpazio& c) { c.ts -= 31; });
  scrivi_byte(t / "f", 0);
  EXPECT_EQ(_spazio_sicuro(t.percorso())->usato_pct, 0);
}

TEST_F(MontaggiTest, ReadOnlyMountIsRefusedAndUnmounted) {
  MONTA(t, "size=1m", /*sola_lettura=*/true);
  auto [ok, msg] = _dopo_mount(t.percorso(), "Unita'");
  EXPECT_FALSE(ok);
  EXPECT_EQ(msg, std::string("Unita'") + kSolaLettura);
  EXPECT_FALSE(_ismount(t.percorso())) << "il montaggio in sola lettura resta al suo posto";
}

TEST_F(MontaggiTest, WritableMountIsAcceptedAndKept) {
  MONTA(t, "size=1m");
  EXPECT_EQ(_dopo_mount(t.percorso(), "Unita'"), std::make_pair(true, std::string()));
  EXPECT_TRUE(_ismount(t.percorso()));
}

TEST_F(MontaggiTest, MountTheServerUserCannotWriteIsRefused) {
  MONTA(t, "size=1m,mode=0755");  // root's own: user nobody cannot write nor take it over
  ::chmod(fs::path(t.percorso()).parent_path().c_str(), 0755);
  std::string self = fs::read_symlink("/proc/self/exe").string();
  RisultatoComando r = _comando({"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                                 "env", "-i", "PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin",
                                 "NVR_SONDA_DOPO_MOUNT=" + t.percorso(), self},
                                60);
  ASSERT_EQ(r.codice, 0) << r.err;
  EXPECT_EQ(r.out,
            "0|Cartella di rete montata ma non scrivibile dall'utente nobody con cui gira il "
            "server: controlla i permessi (sul NAS: utente con diritto di scrittura; NFS: "
            "no_root_squash)\n");
  // The user tried to unmount it again but had no right to: it is still there.
  EXPECT_TRUE(_ismount(t.percorso()));
}

}  // namespace
}  // namespace nvr
