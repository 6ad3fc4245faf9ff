// USB drives as they behave for real: loop-device images mounted by the code as root. Only the
// removable flags (which lsblk cannot report for a loop device) come from a stand-in lsblk.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "core/processo.h"
#include "core/stato.h"
#include "storage/comando.h"
#include "storage/usb.h"
#include "testing/azzera.h"
#include "testing/loop.h"
#include "testing/processi.h"
#include "testing/stand_in.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;
using testing::Controfigure;
using testing::ImmagineLoop;

bool kernel_legge(const std::string& fs) {
  std::ifstream f("/proc/filesystems");
  for (std::string riga; std::getline(f, riga);)
    if (riga.size() > fs.size() && riga.substr(riga.size() - fs.size() - 1) == "\t" + fs)
      return true;
  return false;
}

class UsbRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (loop device e mount)";
    azzera_stato_per_test();
    imposta_radice_montaggi_per_test(radice_.percorso());
    try {
      ext4_ = std::make_unique<ImmagineLoop>("ext4", "My Disk!",
                                             "0b7e1c9a-1111-4222-8333-444455556666");
      vfat_ = std::make_unique<ImmagineLoop>("vfat", "FOTO", "1234-ABCD");
    } catch (const std::exception& e) {
      GTEST_SKIP() << "immagini su loop device non disponibili: " << e.what();
    }
    finte_.mount_registratore();
    mostra({ext4_.get(), vfat_.get()});
  }

  void TearDown() override {
    // The drives go first: their mounts live inside the temporary folders.
    ext4_.reset();
    vfat_.reset();
    altre_.clear();
    azzera_stato_per_test();
  }

  // lsblk shows these images as the partitions of one removable USB disk.
  void mostra(const std::vector<const ImmagineLoop*>& immagini) {
    finte_.programma("lsblk", testing::script_lsblk(immagini, finte_ / "lsblk.args"));
  }

  static constexpr const char* kSenzaNome = "11111111-0000-4000-8000-000000000003";
  CartellaTemporanea radice_;
  Controfigure finte_;
  std::unique_ptr<ImmagineLoop> ext4_, vfat_;
  std::vector<std::unique_ptr<ImmagineLoop>> altre_;
};

TEST_F(UsbRootTest, Ext4MountsWithoutOptionsAndUnmounts) {
  std::string mp = radice_ / "My_Disk";
  EXPECT_EQ(monta_usb("/dev/altro", ext4_->uuid()),
            std::make_tuple(true, std::string("Montata"), mp));
  EXPECT_EQ(ext4_->mountpoint(), mp);
  ASSERT_EQ(finte_.chiamate_mount().size(), 1u);
  EXPECT_EQ(finte_.chiamate_mount()[0], (std::vector<std::string>{ext4_->dev(), mp}));

  // The list shows the space of the mounted drive only.
  std::vector<Unita> elenco = unita_usb();
  ASSERT_EQ(elenco.size(), 2u);
  EXPECT_EQ(elenco[0].dev, ext4_->dev());
  ASSERT_TRUE(elenco[0].spazio);
  EXPECT_EQ(elenco[0].come_json()["spazio"]["totale_gb"], 0.0);  // 8 MB
  EXPECT_EQ(elenco[1].dev, vfat_->dev());
  EXPECT_EQ(elenco[1].come_json()["spazio"], Json());

  EXPECT_EQ(smonta(mp), std::make_pair(true, std::string("Smontata")));
  EXPECT_EQ(ext4_->mountpoint(), "");
  EXPECT_EQ(smonta(mp), std::make_pair(false, std::string("Non e' un punto di montaggio")));
}

TEST_F(UsbRootTest, FatDriveIsGivenToTheServerUserWithUtf8Names) {
  std::string mp = radice_ / "FOTO";
  auto [ok, msg, dove] = monta_usb("", "1234-ABCD");
  ASSERT_EQ(finte_.chiamate_mount().size(), 1u);
  EXPECT_EQ(
      finte_.chiamate_mount()[0],
      (std::vector<std::string>{"-o", "uid=0,gid=0,umask=000,iocharset=utf8", vfat_->dev(), mp}));
  if (kernel_legge("vfat")) {
    EXPECT_EQ(std::make_tuple(ok, msg, dove), std::make_tuple(true, std::string("Montata"), mp));
  } else {
    // This kernel cannot read FAT: the user is told so, in plain words.
    EXPECT_FALSE(ok);
    EXPECT_EQ(dove, "");
    EXPECT_EQ(msg.rfind("mount: mount: " + mp + ": unknown filesystem type 'vfat'.", 0), 0u) << msg;
    std::string consiglio =
        "  (il sistema non sa leggere questo filesystem: formatta la chiavetta in exFAT o ext4)";
    EXPECT_EQ(msg.substr(msg.size() - consiglio.size()), consiglio) << msg;
  }
}

TEST_F(UsbRootTest, DriveWithoutALabelIsMountedUnderItsDeviceName) {
  altre_.push_back(std::make_unique<ImmagineLoop>("ext4", "", kSenzaNome));
  mostra({altre_.back().get()});
  std::string mp = radice_ / fs::path(altre_.back()->dev()).filename().string();
  EXPECT_EQ(monta_usb("", kSenzaNome), std::make_tuple(true, std::string("Montata"), mp));
  EXPECT_EQ(altre_.back()->mountpoint(), mp);
}

TEST_F(UsbRootTest, DriveMountedByTheDesktopIsUsedWhereItIsOrRefusedWhenReadOnly) {
  CartellaTemporanea desktop;
  std::string mp = desktop / "DISK";
  fs::create_directory(mp);
  ASSERT_EQ(::mount(ext4_->dev().c_str(), mp.c_str(), "ext4", 0, nullptr), 0);
  EXPECT_EQ(monta_usb("", ext4_->uuid()), std::make_tuple(true, std::string("Gia' montata"), mp));
  ASSERT_EQ(::umount(mp.c_str()), 0);

  ASSERT_EQ(::mount(ext4_->dev().c_str(), mp.c_str(), "ext4", MS_RDONLY, nullptr), 0);
  EXPECT_EQ(monta_usb("", ext4_->uuid()),
            std::make_tuple(false,
                            "gia' montata da un altro programma in " + mp +
                                " ma li' il server non puo' scrivere: espelli la chiavetta dal "
                                "desktop e premi di nuovo \"Usa questa unita'\"",
                            std::string()));
  EXPECT_TRUE(finte_.chiamate_mount().empty());  // never mounted a second time
  EXPECT_EQ(ext4_->mountpoint(), mp);
  ::umount2(mp.c_str(), MNT_DETACH);
}

TEST(VolumiRootTest, ListsTheMountedVolumesButTheMacsOwnDisk) {
  if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (mount di tmpfs)";
  CartellaTemporanea volumi;
  for (const char* nome : {"USBKEY", "Macintosh HD", "Vuota"}) fs::create_directory(volumi / nome);
  ASSERT_EQ(::mount("tmpfs", (volumi / "USBKEY").c_str(), "tmpfs", 0, "size=300m"), 0);
  ASSERT_EQ(::mount("tmpfs", (volumi / "Macintosh HD").c_str(), "tmpfs", 0, "size=1m"), 0);

  std::vector<Unita> misurati = _unita_volumi(volumi.percorso(), true);
  std::vector<Unita> contati = _unita_volumi(volumi.percorso(), false);
  ::umount2((volumi / "USBKEY").c_str(), MNT_DETACH);
  ::umount2((volumi / "Macintosh HD").c_str(), MNT_DETACH);

  ASSERT_EQ(misurati.size(), 1u);
  EXPECT_EQ(misurati[0].dev, volumi / "USBKEY");
  EXPECT_EQ(misurati[0].nome, "USBKEY");
  EXPECT_EQ(misurati[0].dimensione_gb, 0.3);
  EXPECT_TRUE(misurati[0].montata);
  ASSERT_EQ(contati.size(), 1u);
  EXPECT_EQ(contati[0].dimensione_gb, 0.0);
  EXPECT_TRUE(_unita_volumi(volumi / "manca", true).empty());
}

}  // namespace
}  // namespace nvr
