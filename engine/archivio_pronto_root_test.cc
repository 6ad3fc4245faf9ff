// The archive check against real drives: a loop-device image pulled out while it is the
// archive and mounted again elsewhere; a disk short of space.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include <filesystem>
#include <memory>

#include "core/db.h"
#include "core/processo.h"
#include "core/tempo.h"
#include "engine/archivio_pronto.h"
#include "engine/registratori.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "storage/prontezza.h"
#include "storage/usb.h"
#include "testing/loop.h"
#include "testing/processi.h"
#include "testing/righe_di_prova.h"
#include "testing/stand_in.h"
#include "testing/tmpfs_di_prova.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::ImmagineLoop;

using Esito2 = std::pair<bool, std::string>;

class ArchivioRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (loop device e mount)";
    _init_db();
    imposta_radice_montaggi_per_test(radice_.percorso());
    azzera_prontezza_per_test();
    finte_.mount_registratore();
  }

  void TearDown() override {
    disco_.reset();  // its mounts live inside the temporary folders
    for (auto& [cid, r] : registratori_in_corso())
      if (r.proc) r.proc->segnala(SIGKILL);
  }

  static constexpr const char* kUuid = "5e1f0c2a-7777-4888-9999-aaaabbbbcccc";
  testing::HostDiProva host_;
  CartellaTemporanea radice_;
  testing::Controfigure finte_;
  std::unique_ptr<ImmagineLoop> disco_;
};

// When to look again for a pulled drive is the planner's table (storage/prontezza_test.cc); a
// drive plugged back into its own place is tests/reliability/disco_test.cc.
TEST_F(ArchivioRootTest, PulledDriveIsDetachedThenFollowedToWhereTheDesktopMountsIt) {
  try {
    disco_ = std::make_unique<ImmagineLoop>("ext4", "DISK", kUuid);
  } catch (const std::exception& e) {
    FAIL() << "immagine su loop device non disponibile: " << e.what();
  }
  finte_.programma("lsblk", testing::script_lsblk({disco_.get()}, finte_ / "lsblk.args"));
  const std::string vecchio = disco_->dev();
  auto [ok, msg, mp] = monta_usb("", kUuid);
  ASSERT_TRUE(ok) << msg;
  Config cfg{
      .cartella = mp + "/nvr",
      .destinazione = {{"tipo", "usb"}, {"dev", vecchio}, {"uuid", kUuid}, {"mountpoint", mp}},
      .spazio_min_gb = 0};  // an 8 MB drive is never "full enough"
  _salva_config(cfg);
  ASSERT_EQ(_archivio_pronto(cfg), Esito2(true, ""));
  auto proc = avvia_processo(Avvio{.argomenti = {"sleep", "300"}});
  ASSERT_TRUE(proc.ok());
  Registratore r;
  r.proc = proc.valore();
  adotta_registratore(3, r);
  disco_->stacca();
  ASSERT_TRUE(_ismount(mp));  // the kernel still holds the pulled drive's filesystem

  ::testing::internal::CaptureStdout();
  EXPECT_EQ(_archivio_pronto(cfg),
            Esito2(false, "Unita' USB non collegata: Unita' non trovata (staccata?)"));
  std::string log = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("registrazione telecamera 3 fermata (archivio staccato)"), std::string::npos)
      << log;
  EXPECT_NE(log.find("archivio " + mp + " non risponde piu': smontato, si riprova"),
            std::string::npos)
      << log;
  EXPECT_TRUE(testing::attendi_sparito(proc.valore()->pid(), 10));
  EXPECT_FALSE(_ismount(mp));     // detached lazily
  EXPECT_TRUE(fs::is_empty(mp));  // and nothing written in its place on the system disk

  // The desktop mounts it again, under its own folder and another device name.
  disco_->ricollega();
  ASSERT_NE(disco_->dev(), vecchio);
  CartellaTemporanea desktop;
  std::string altrove = desktop / "DISK";
  fs::create_directory(altrove);
  ASSERT_EQ(::mount(disco_->dev().c_str(), altrove.c_str(), "ext4", 0, nullptr), 0);
  azzera_prontezza_per_test();  // as if the last attempt were 30 s old

  ::testing::internal::CaptureStdout();
  EXPECT_EQ(_archivio_pronto(cfg), Esito2(true, ""));
  log = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("archivio spostato in " + altrove + "/nvr"), std::string::npos) << log;
  EXPECT_TRUE(fs::is_directory(altrove + "/nvr"));
  EXPECT_EQ(ultimo_mount_fallito().ts, 0.0);
  for (const Config& c : {cfg, leggi_config()}) {  // followed, and saved so
    EXPECT_EQ(c.cartella, altrove + "/nvr");
    EXPECT_EQ(c.destinazione["mountpoint"], altrove);
    EXPECT_EQ(c.destinazione["dev"], disco_->dev());
    EXPECT_EQ(c.destinazione["uuid"], kUuid);  // still known by its identity
  }
  EXPECT_EQ(finte_.chiamate_mount().size(), 1u);  // the desktop's mount is used as it is
  ::umount2(altrove.c_str(), MNT_DETACH);
}

// Still short after the clean-up: the verdict and its message are storage/prontezza_test.cc, the
// recording stopping and resuming tests/reliability/spazio_test.cc.
TEST_F(ArchivioRootTest, ShortSpaceForcesOneCleanUpFirst) {
  testing::TmpfsDiProva disco("size=300m");
  ASSERT_TRUE(disco.montato()) << disco.errore();
  Config cfg{.cartella = disco / "nvr",
             .destinazione = {{"tipo", "rete"}, {"mountpoint", disco.percorso()}},
             .giorni = 30};
  std::string vecchio = cfg.cartella + "/cam_1/2024-05-01/10-00-00.mp4";
  testing::scrivi_byte(vecchio, 100'000'000);
  testing::aggiungi_registrazione(1, _ora() - 3600, vecchio);

  cfg.spazio_min_gb = 0.25;  // 0.2 GB free: the clean-up makes room
  EXPECT_EQ(_archivio_pronto(cfg), Esito2(true, ""));
  EXPECT_FALSE(fs::exists(vecchio));
}

}  // namespace
}  // namespace nvr
