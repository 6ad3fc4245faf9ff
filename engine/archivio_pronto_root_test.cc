// The archive check against real drives: a loop-device image pulled out while it is the
// archive, plugged in again in its place or elsewhere; a disk that is full.
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

  // An ext4 drive shown by lsblk, mounted by the code, configured as the archive.
  Config archivio_su_usb() {
    try {
      disco_ = std::make_unique<ImmagineLoop>("ext4", "DISK", kUuid);
    } catch (const std::exception& e) {
      ADD_FAILURE() << "immagine su loop device non disponibile: " << e.what();
      return {};
    }
    finte_.programma("lsblk", testing::script_lsblk({disco_.get()}, finte_ / "lsblk.args"));
    auto [ok, msg, mp] = monta_usb("", kUuid);
    EXPECT_TRUE(ok) << msg;
    Config cfg;
    cfg.cartella = mp + "/nvr";
    cfg.destinazione = {{"tipo", "usb"},
                        {"dev", disco_->dev()},
                        {"uuid", kUuid},
                        {"etichetta", "DISK"},
                        {"mountpoint", mp}};
    cfg.spazio_min_gb = 0;  // an 8 MB drive is never "full enough"
    _salva_config(cfg);
    EXPECT_EQ(_archivio_pronto(cfg), Esito2(true, ""));
    EXPECT_TRUE(fs::is_directory(cfg.cartella));
    return cfg;
  }

  pid_t registratore_finto(CamId cid) {
    Avvio a;
    a.argomenti = {"sleep", "300"};
    auto p = avvia_processo(a);
    EXPECT_TRUE(p.ok());
    if (!p.ok()) return -1;
    Registratore r;
    r.proc = p.valore();
    adotta_registratore(cid, r);
    return p.valore()->pid();
  }

  static constexpr const char* kUuid = "5e1f0c2a-7777-4888-9999-aaaabbbbcccc";
  testing::HostDiProva host_;
  CartellaTemporanea radice_;
  testing::Controfigure finte_;
  std::unique_ptr<ImmagineLoop> disco_;
};

TEST_F(ArchivioRootTest, PulledDriveStopsRecordingAndIsDetached) {
  Config cfg = archivio_su_usb();
  ASSERT_TRUE(disco_);
  std::string mp = cfg.destinazione["mountpoint"];
  pid_t pid = registratore_finto(3);
  disco_->stacca();
  ASSERT_TRUE(_ismount(mp));  // the kernel still holds the pulled drive's filesystem

  const Esito2 staccata{false, "Unita' USB non collegata: Unita' non trovata (staccata?)"};
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(_archivio_pronto(cfg), staccata);
  std::string log = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("registrazione telecamera 3 fermata (archivio staccato)"), std::string::npos)
      << log;
  EXPECT_NE(log.find("archivio " + mp + " non risponde piu': smontato, si riprova"),
            std::string::npos)
      << log;
  EXPECT_TRUE(testing::attendi_sparito(pid, 10));
  EXPECT_FALSE(_ismount(mp));     // detached lazily
  EXPECT_TRUE(fs::is_empty(mp));  // and nothing written in its place on the system disk

  // Within the next 30 s the drive is not even looked for.
  std::size_t cercata = finte_.chiamate_lsblk().size();
  EXPECT_EQ(_archivio_pronto(cfg), staccata);
  EXPECT_EQ(finte_.chiamate_lsblk().size(), cercata);
  EXPECT_EQ(finte_.chiamate_mount().size(), 1u);  // only the first, successful mount
  EXPECT_TRUE(fs::is_empty(mp));
}

TEST_F(ArchivioRootTest, DriveBackAtAnotherFolderIsFollowedAndSaved) {
  Config cfg = archivio_su_usb();
  ASSERT_TRUE(disco_);
  std::string vecchio = disco_->dev();
  disco_->stacca();
  EXPECT_FALSE(_archivio_pronto(cfg).first);

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
  std::string log = ::testing::internal::GetCapturedStdout();
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

TEST_F(ArchivioRootTest, RepluggedDriveIsMountedAgainInItsPlace) {
  Config cfg = archivio_su_usb();
  ASSERT_TRUE(disco_);
  std::string mp = cfg.destinazione["mountpoint"];
  disco_->stacca();
  EXPECT_FALSE(_archivio_pronto(cfg).first);
  disco_->ricollega();
  azzera_prontezza_per_test();  // as if the last attempt were 30 s old
  EXPECT_EQ(_archivio_pronto(cfg), Esito2(true, ""));
  EXPECT_EQ(disco_->mountpoint(), mp);
  EXPECT_EQ(cfg.cartella, mp + "/nvr");
  EXPECT_EQ(leggi_config().destinazione["dev"], disco_->dev());
  EXPECT_EQ(leggi_config().destinazione["mountpoint"], mp);
  ASSERT_EQ(finte_.chiamate_mount().size(), 2u);
  EXPECT_EQ(finte_.chiamate_mount()[1], (std::vector<std::string>{disco_->dev(), mp}));
}

TEST_F(ArchivioRootTest, ShortSpaceForcesOneCleanUpBeforeTheArchiveIsFull) {
  testing::TmpfsDiProva disco("size=300m");
  ASSERT_TRUE(disco.montato()) << disco.errore();
  Config cfg;
  cfg.cartella = disco / "nvr";
  cfg.destinazione = {{"tipo", "rete"}, {"mountpoint", disco.percorso()}};
  cfg.giorni = 30;
  std::string vecchio = cfg.cartella + "/cam_1/2024-05-01/10-00-00.mp4";
  testing::scrivi_byte(vecchio, 100'000'000);
  testing::aggiungi_registrazione(1, _ora() - 3600, vecchio);

  cfg.spazio_min_gb = 0.25;  // 0.2 GB free: the clean-up makes room
  EXPECT_EQ(_archivio_pronto(cfg), Esito2(true, ""));
  EXPECT_FALSE(fs::exists(vecchio));

  testing::scrivi_byte(vecchio, 100'000'000);
  testing::aggiungi_registrazione(1, _ora() - 3600, vecchio);
  cfg.spazio_min_gb = 1.0;  // more than the whole disk: still short after the clean-up
  EXPECT_EQ(_archivio_pronto(cfg), Esito2(false, "Spazio esaurito sull'archivio (0.3 GB liberi)"));
  EXPECT_FALSE(fs::exists(vecchio));
}

}  // namespace
}  // namespace nvr
