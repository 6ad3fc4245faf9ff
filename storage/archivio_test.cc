#include "storage/archivio.h"
#include "storage/prontezza.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/db.h"
#include "storage/montaggi.h"
#include "testing/ambiente.h"
#include "testing/stand_in.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;
using testing::CartellaTemporanea;

class ArchivioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    _init_db();
    imposta_radice_montaggi_per_test(radice_.percorso());
    // One drive the machine sees, mounted in a folder outside every fixed root.
    finte_.lsblk_fisso(R"({"blockdevices": [{"name": "sdb1", "path": "/dev/sdb1",
      "type": "part", "rm": true, "size": 1, "fstype": "ext4", "label": "K", "uuid": "u",
      "mountpoint": ")" +
                       unita_.percorso() + R"("}]})");
  }

  testing::HostDiProva host_;  // resets the module state first, so it comes first
  CartellaTemporanea radice_, scelta_, unita_, fuori_;
  testing::Controfigure finte_;
};

TEST_F(ArchivioTest, AllowedRootsAreJudgedOnRealPathsAndWholeNames) {
  Config cfg;
  cfg.cartella = scelta_ / "nvr";
  _salva_config(cfg);
  fs::create_symlink("/etc", radice_ / "verso_etc");
  fs::create_symlink(scelta_.percorso(), fuori_ / "verso_scelta");
  struct Caso {
    std::string p;
    bool atteso;
  } casi[] = {
      {radice_.percorso(), true},
      {radice_.percorso() + "/", true},
      {radice_ / "DISK/nvr", true},  // not created yet: judged by where it would be
      {radice_ / "../x", false},
      {radice_ / "verso_etc", false},
      {"/media", true},
      {"/mnt/nas", true},
      {"/mediafoo", false},
      {std::string("/media\0/../etc", 14), false},  // the system would read "/media"
      {"/", false},
      {"", false},
      {scelta_ / "nvr", true},  // the folder chosen before, and what lies inside it
      {scelta_ / "nvr/cam_1", true},
      {scelta_.percorso(), false},
      {fuori_ / "verso_scelta/nvr", true},
      {unita_ / "video", true},  // a mounted drive
      {fuori_.percorso(), false},
  };
  for (const Caso& c : casi) EXPECT_EQ(_dentro_radici_permesse(c.p), c.atteso) << c.p;
}

TEST_F(ArchivioTest, BrowserListsOnlyVisibleFoldersInsideAllowedRoots) {
  for (const char* d : {"b", "A", "a", ".nascosta", "lost+found", "System Volume Information",
                        "$RECYCLE.BIN", "nvr"})
    fs::create_directory(radice_ / d);
  testing::scrivi_file(radice_ / "file.txt", "x");
  fs::create_directory_symlink(radice_ / "nvr", radice_ / "collegamento");

  auto voci = cartelle(radice_.percorso());
  ASSERT_TRUE(voci);
  std::vector<std::pair<std::string, std::string>> viste;
  for (const VoceCartella& v : *voci) viste.emplace_back(v.nome, v.percorso);
  EXPECT_EQ(viste, (std::vector<std::pair<std::string, std::string>>{
                       {"A", radice_ / "A"},
                       {"a", radice_ / "a"},
                       {"b", radice_ / "b"},
                       {"collegamento", radice_ / "collegamento"},
                       {"nvr", radice_ / "nvr"}}));
  EXPECT_TRUE(cartelle(radice_ / "nvr")->empty());

  EXPECT_FALSE(cartelle(radice_ / "manca"));
  EXPECT_FALSE(cartelle(radice_ / "file.txt"));
  EXPECT_FALSE(cartelle(fuori_.percorso()));
}

// A name climbing out of the base, and a base outside the allowed roots, are
// web/api_storage_test.cc's CreatingFoldersStaysInsideBase.
TEST_F(ArchivioTest, NewFolderNameIsCutAndItsFailuresReported) {
  using Esito3 = std::tuple<bool, std::string, std::string>;
  EXPECT_EQ(crea_cartella(radice_.percorso(), std::string(100, 'n')),
            Esito3(true, "Creata", radice_ / std::string(60, 'n')));
  EXPECT_EQ(crea_cartella(radice_ / "manca", "x"),
            Esito3(false, "Cartella di partenza non valida", ""));

  testing::scrivi_file(radice_ / "occupato", "x");
  auto [ok, msg, p] = crea_cartella(radice_.percorso(), "occupato");
  EXPECT_FALSE(ok);
  EXPECT_EQ(msg.rfind("Non riesco a creare la cartella: ", 0), 0u) << msg;
  EXPECT_GT(msg.size(), std::string("Non riesco a creare la cartella: ").size());
  EXPECT_EQ(p, "");
}

TEST_F(ArchivioTest, EmptyMountPointFolderIsRefusedForExternalStorageOnly) {
  if (_radice_montaggio(radice_.percorso()) != "/")
    GTEST_SKIP() << "le cartelle temporanee non stanno sul filesystem di sistema";
  Config cfg{.cartella = radice_ / "DISK/nvr"};
  for (const char* tipo : {"usb", "rete"}) {
    cfg.destinazione = {{"tipo", tipo}, {"mountpoint", ""}};
    EXPECT_EQ(prepara_cartella(cfg),
              std::make_pair(false, "La cartella " + cfg.cartella +
                                        " non sta sull'unita' esterna: unita' non montata"))
        << tipo;
    EXPECT_TRUE(fs::is_empty(radice_.percorso())) << "scritto sul disco di sistema";
  }

  cfg.destinazione = {{"tipo", "locale"}};
  EXPECT_EQ(prepara_cartella(cfg), std::make_pair(true, std::string()));
  EXPECT_TRUE(fs::is_directory(cfg.cartella));
}

TEST_F(ArchivioTest, FolderThatCannotBeCreatedIsReported) {
  testing::scrivi_file(radice_ / "file", "x");
  auto [ok, msg] = prepara_cartella(Config{.cartella = radice_ / "file/nvr"});
  EXPECT_FALSE(ok);
  EXPECT_EQ(msg.rfind("Cartella non creabile: ", 0), 0u) << msg;
}

}  // namespace
}  // namespace nvr
