#include "storage/montaggi.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/stato.h"
#include "testing/azzera.h"
#include "testing/ambiente.h"
#include "testing/stand_in.h"

namespace nvr {
namespace {

using testing::CartellaTemporanea;

const std::string kCredenziali = "  (utente o password della cartella condivisa non accettati)";
const std::string kCondivisa = "  (cartella condivisa non trovata sul server: controlla il nome)";
const std::string kServer = "  (server non raggiungibile: controlla indirizzo e rete)";
const std::string kPermessi =
    "  (il server non ha i permessi per montare: deve girare come root, o in sudo senza password)";
const std::string kIgnoto =
    "  (il sistema non sa leggere questo filesystem: formatta la chiavetta in exFAT o ext4)";

std::string mac(const std::string& nome) {
  return "  (la chiavetta e' formattata dal Mac in " + nome +
         ": Linux non la legge. Formattala in exFAT: sul Mac Utility Disco > Inizializza > formato "
         "exFAT, schema Master Boot Record; poi ricollegala e premi di nuovo \"Usa questa "
         "unita'\")";
}

TEST(SpiegaMountTest, EachErrorGetsTheFirstMatchingHint) {
  const std::string exfat =
      "  (manca il supporto exfat sul server: esegui  sudo apt-get install -y exfat-fuse "
      "exfatprogs  e riprova)";
  const std::pair<std::string, std::string> casi[] = {
      {"mount: qualcosa di strano", ""},
      // Credentials: the CIFS code wins over the generic words of a later row.
      {"mount error(13): Permission denied", kCredenziali},
      {"mount error(2): No such file or directory", kCondivisa},
      {"ERRNO 2 cartella", kCondivisa},
      {"mount error(112): Host is down", kServer},
      {"No route to host", kServer},
      {"Connection refused", kServer},
      {"mount error(110): Connection timed out", kServer},
      {"mount: only root can do that", kPermessi},
      {"mount: /mnt: Permission denied.", kPermessi},
      {"Permesso negato", kPermessi},
      {"mount: Operation not permitted", kPermessi},
      // Filesystems the system cannot read; the quoted type keeps its case only for the Mac.
      {"mount: /media/x: unknown filesystem type 'apfs'.", mac("APFS")},
      {"wrong fs type; filesystem type 'hfs'", mac("HFS")},
      {"unknown filesystem type 'exfat'", exfat},
      {"unknown filesystem type 'NTFS'",
       "  (manca il supporto ntfs sul server: esegui  sudo apt-get install -y ntfs-3g  e riprova)"},
      {"unknown filesystem type 'btrfs'", kIgnoto},
      {"mount: /media/x: wrong fs type, bad option, bad superblock on /dev/sdb1.", kIgnoto},
      {"Tipo di filesystem sconosciuto", kIgnoto},
      {"wrong fs type: filesystem type '' o filesystem type 'exfat'", exfat},
      {"unknown filesystem type 'exfat", kIgnoto},
      // Only the lower-case text is searched for the row, the original for the name.
      {"UNKNOWN FILESYSTEM TYPE 'exfat'", kIgnoto},
  };
  for (const auto& [err, consiglio] : casi)
    EXPECT_EQ(_spiega_mount(err), err + consiglio) << "errore: " << err;
  // The text is trimmed before the hint is added.
  EXPECT_EQ(_spiega_mount("  \n\t"), "");
  EXPECT_EQ(_spiega_mount(" [Errno 13] Permission denied\n"),
            "[Errno 13] Permission denied" + kCredenziali);
}

TEST(SpazioTest, OnlyAnExistingFolderHasFigures) {
  azzera_stato_per_test();
  CartellaTemporanea t;
  EXPECT_FALSE(_spazio(t / "manca").has_value());
  EXPECT_FALSE(_spazio_sicuro(t / "manca").has_value());
  std::filesystem::create_directory(t / "manca");
  EXPECT_FALSE(_spazio_sicuro(t / "manca").has_value()) << "anche l'assenza resta in cache";
  // A file is not a folder: no figures even though statvfs would answer for it.
  testing::scrivi_file(t / "file", "x");
  EXPECT_FALSE(_spazio_sicuro(t / "file", 0).has_value());
  auto sp = _spazio_sicuro(t.percorso(), 0);
  ASSERT_TRUE(sp.has_value());
  EXPECT_GT(sp->totale_gb, 0.0);
  azzera_stato_per_test();
}

TEST(MountVivoTest, UsbDriveMustStillBeListedAndMounted) {
  CartellaTemporanea mp;  // the mount point folder stays behind when a drive is pulled
  testing::Controfigure finte;
  finte.lsblk_fisso(R"({"blockdevices": [{"name": "sdb", "type": "disk", "rm": true,
    "children": [
      {"name": "sdb1", "path": "/dev/sdb1", "type": "part", "size": 1, "fstype": "ext4",
       "label": "NVR", "uuid": "uuid-a", "partuuid": "part-a", "mountpoint": "/media/x"},
      {"name": "sdb2", "path": "/dev/sdb2", "type": "part", "size": 1, "fstype": "ext4",
       "label": "FERMA", "uuid": "uuid-b", "partuuid": "part-b", "mountpoint": null}]}]})");
  struct Caso {
    Json dest;
    std::string mp;
    bool atteso;
  };
  // How the drive is looked up is _trova_unita's own table; here what "alive" asks of it.
  const Caso casi[] = {
      {{{"tipo", "usb"}, {"uuid", "uuid-a"}}, mp.percorso(), true},
      {{{"tipo", "usb"}, {"uuid", "uuid-a"}}, mp / "manca", false},       // listed, but no answer
      {{{"tipo", "usb"}, {"uuid", "uuid-b"}}, mp.percorso(), false},      // present, not mounted
      {{{"tipo", "usb"}, {"uuid", "uuid-tolta"}}, mp.percorso(), false},  // pulled
      // Other destinations only need the mount point to answer.
      {{{"tipo", "rete"}, {"uuid", "uuid-tolta"}}, mp.percorso(), true},
      {Json::object(), mp.percorso(), true},
      {Json::object(), mp / "manca", false},
  };
  for (const Caso& c : casi)
    EXPECT_EQ(_mount_vivo(c.dest, c.mp), c.atteso) << c.dest.dump() << " " << c.mp;
}

}  // namespace
}  // namespace nvr
