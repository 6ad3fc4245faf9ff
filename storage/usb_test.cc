#include "storage/usb.h"

#include <gtest/gtest.h>

#include "testing/stand_in.h"

namespace nvr {
namespace {

using testing::Controfigure;

// What lsblk prints on a machine booting from a USB disk, with a pen drive and a few things
// that must never be offered as an archive. An absent field reads as null, so only the first
// partition keeps the nulls of the real output.
const char* kAlbero = R"({"blockdevices": [
  {"name": "sda", "path": "/dev/sda", "type": "disk", "rm": false, "tran": "usb", "children": [
    {"name": "sda1", "path": "/dev/sda1", "type": "part", "mountpoint": "/boot/firmware",
     "fstype": "vfat"},
    {"name": "sda2", "path": "/dev/sda2", "type": "part", "mountpoint": "/", "fstype": "ext4"}]},
  {"name": "sdb", "path": "/dev/sdb", "size": 16008609792, "type": "disk", "mountpoint": null,
   "rm": true, "model": "  Cruzer Blade ", "vendor": "SanDisk ", "children": [
    {"name": "sdb1", "path": "/dev/sdb1", "size": 15931539456, "type": "part",
     "mountpoint": "/media/pi/KEY", "label": "KEY", "fstype": "vfat", "rm": false, "tran": null,
     "hotplug": false, "model": null, "vendor": null, "uuid": "B0B0-0001", "partuuid": "bb-01"},
    {"name": "sdb2", "path": "/dev/sdb2", "type": "part", "mountpoint": "[SWAP]", "fstype": "swap"},
    {"name": "sdb3", "path": "/dev/sdb3", "type": "part", "fstype": "LVM2_member", "children": [
      {"name": "vg-dati", "path": "/dev/mapper/vg-dati", "type": "lvm", "label": "DATI",
       "fstype": "ext4"}]},
    {"name": "sdb4", "size": 2250000000, "type": "part", "fstype": "ext4", "uuid": "sdb4-uuid"},
    {"name": "sdb5", "path": "/dev/sdb5", "type": "part", "fstype": null}]},
  {"name": "sdc", "path": "/dev/sdc", "type": "disk", "label": "INTERA", "fstype": "exfat",
   "tran": "usb", "hotplug": true},
  {"name": "sdd", "path": "/dev/sdd", "type": "disk", "rm": "1", "hotplug": "0",
   "model": "Elements", "vendor": "WD", "children": [
    {"name": "sdd1", "path": "/dev/sdd1", "size": "1000202788864", "type": "part",
     "label": "Archivio", "fstype": "ntfs", "rm": "0", "hotplug": "0", "model": "Elements SE",
     "uuid": "D0D0", "partuuid": "dd-01"}]},
  {"name": "nvme0n1", "path": "/dev/nvme0n1", "type": "disk", "rm": false, "tran": "nvme",
   "children": [{"name": "nvme0n1p1", "path": "/dev/nvme0n1p1", "type": "part",
                 "mountpoint": "/srv", "label": "DATI", "fstype": "ext4"}]}
]})";

Json unita(const char* dev, const char* nome, const char* etichetta, const char* uuid,
           const char* partuuid, const char* fs, double gb, const char* mp, const char* modello) {
  return Json{{"dev", dev},          {"nome", nome},           {"etichetta", etichetta},
              {"uuid", uuid},        {"partuuid", partuuid},   {"fs", fs},
              {"dimensione_gb", gb}, {"montata", *mp != '\0'}, {"mountpoint", mp},
              {"modello", modello},  {"sistema", false},       {"spazio", nullptr}};
}

TEST(LeggiLsblkTest, ListsOnlyTheRemovablePartitionsWithAUsableFilesystem) {
  Json atteso = Json::array({
      // Removable by inheritance from its disk; model and vendor inherited and trimmed.
      unita("/dev/sdb1", "KEY", "KEY", "B0B0-0001", "bb-01", "vfat", 15.9, "/media/pi/KEY",
            "SanDisk Cruzer Blade"),
      // No path: the kernel name makes the device; no label: the kernel name is the name.
      // 2.25 GB keeps the even neighbour.
      unita("/dev/sdb4", "sdb4", "", "sdb4-uuid", "", "ext4", 2.2, "", "SanDisk Cruzer Blade"),
      // Flags as texts, as older lsblk prints them; the partition's own model wins.
      unita("/dev/sdd1", "Archivio", "Archivio", "D0D0", "dd-01", "ntfs", 1000.2, "",
            "WD Elements SE"),
  });
  Json trovate = Json::array();
  for (const Unita& u : _leggi_lsblk(Json::parse(kAlbero))) trovate.push_back(u.come_json());
  EXPECT_EQ(trovate, atteso) << trovate.dump(1);
}

TEST(LeggiLsblkTest, ToleratesOutputOfAnyShape) {
  for (const char* testo : {"{}", "[]", "null", R"({"blockdevices": 3})",
                            R"({"blockdevices": [1, "x", null, {"children": 5}]})"})
    EXPECT_TRUE(_leggi_lsblk(Json::parse(testo)).empty()) << testo;
}

class TrovaUnitaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Two drives with the same label, as two sticks formatted alike would have.
    finte_.lsblk_fisso(R"({"blockdevices": [{"name": "sdb", "type": "disk", "rm": true,
      "children": [
        {"name": "sdb1", "path": "/dev/sdb1", "type": "part", "size": 1, "fstype": "ext4",
         "label": "NVR", "uuid": "uuid-a", "partuuid": "part-a", "mountpoint": null},
        {"name": "sdc1", "path": "/dev/sdc1", "type": "part", "size": 1, "fstype": "ext4",
         "label": "NVR", "uuid": "uuid-b", "partuuid": "part-b", "mountpoint": "/media/x"}]}]})");
  }
  Controfigure finte_;
};

TEST_F(TrovaUnitaTest, TriesUuidThenPartuuidThenLabelThenDevice) {
  struct Caso {
    const char* dev;
    const char* uuid;
    const char* etichetta;
    const char* atteso;  // device found, "" for none
  } casi[] = {
      {"/dev/sdc1", "uuid-a", "", "/dev/sdb1"},     // re-plugged: the UUID wins over the name
      {"", "part-b", "", "/dev/sdc1"},              // the stored UUID was the partition's
      {"/dev/sdc1", "", "NVR", "/dev/sdb1"},        // the label wins over the device name
      {"/dev/sdc1", "uuid-gone", "", "/dev/sdc1"},  // a key that matches nothing is passed over
      {"/dev/sdc1", "uuid-gone", "OTHER", "/dev/sdc1"},
      {"", "", "", ""},
      {"/dev/sdz9", "uuid-gone", "OTHER", ""},
      {"/dev/sdb", "", "", ""},  // the disk itself is not a drive
  };
  for (const Caso& c : casi) {
    std::optional<Unita> u = _trova_unita(c.dev, c.uuid, c.etichetta);
    EXPECT_EQ(u ? u->dev : "", c.atteso) << c.dev << " " << c.uuid << " " << c.etichetta;
  }
  std::optional<Unita> b = _trova_unita("", "uuid-b");
  ASSERT_TRUE(b);
  EXPECT_TRUE(b->montata);
  EXPECT_EQ(b->mountpoint, "/media/x");
  EXPECT_FALSE(b->spazio);  // finding a drive never touches its filesystem
  EXPECT_EQ(finte_.chiamate_lsblk().back(),
            "-J -b -o NAME,PATH,SIZE,TYPE,MOUNTPOINT,LABEL,FSTYPE,RM,TRAN,HOTPLUG,MODEL,VENDOR,"
            "UUID,PARTUUID");
}

TEST_F(TrovaUnitaTest, FailingOrGarbledLsblkFindsNothing) {
  finte_.programma("lsblk", "#!/bin/sh\necho 'lsblk: boom' >&2\nexit 1\n");
  EXPECT_FALSE(_trova_unita("/dev/sdb1", "uuid-a", "NVR"));
  finte_.programma("lsblk", "#!/bin/sh\necho '{\"blockdevices\": [' \n");
  EXPECT_FALSE(_trova_unita("/dev/sdb1", "uuid-a", "NVR"));
}

}  // namespace
}  // namespace nvr
