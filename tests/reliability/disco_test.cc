// The archive's USB drive pulled out while it records: a real ext4 image on a loop device, chosen
// through the storage and configuration API as the storage page does (only lsblk is a stand-in:
// it cannot call a loop device a removable USB disk). While the drive is away, and across a
// restart meanwhile, nothing is written to the system disk below the empty mount point; when it
// is plugged in again recording resumes there and nothing recorded is lost.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "storage/comando.h"
#include "testing/loop.h"
#include "testing/stand_in.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUuid = "a7f10c2e-5d3b-4c11-9e0f-77aa31c0d4e2";

TEST(DiscoTest, PulledDriveWritesNothingElsewhereAndRecordingResumesWhenBack) {
  if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (loop device e mount)";
  testing::Controfigure finte;
  std::string mp;
  struct Pulizia {  // the empty mount point the program made, once the image is gone
    std::string& mp;
    ~Pulizia() {
      std::error_code ec;
      if (!mp.empty()) fs::remove(mp, ec);
    }
  } pulizia{mp};
  std::unique_ptr<testing::ImmagineLoop> disco;
  try {  // a label of its own: another run's would collide in the shared mount folder
    disco = std::make_unique<testing::ImmagineLoop>(
        "ext4", "AFF" + std::to_string(::getpid() % 100000), kUuid, 200);
  } catch (const std::exception& e) {
    GTEST_SKIP() << "immagine su loop device non disponibile: " << e.what();
  }
  finte.programma("lsblk", testing::script_lsblk({disco.get()}, finte / "lsblk.args"));
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  ASSERT_TRUE(imp.avvia());
  auto r = imp.programma().post("/api/nvr/storage/monta", {{"tipo", "usb"}, {"uuid", kUuid}});
  ASSERT_EQ(r.status, 200) << r.corpo;
  mp = r.json.value("mountpoint", "");
  ASSERT_EQ(imp.programma().post("/api/nvr/cartelle", {{"base", mp}, {"nome", "nvr"}}).status, 200);
  r = imp.programma().post(
      "/api/nvr/config",
      {{"cartella", mp + "/nvr"}, {"destinazione", {{"tipo", "usb"}, {"uuid", kUuid}}}});
  ASSERT_EQ(r.status, 200) << r.corpo;
  ASSERT_NE(imp.aggiungi_camera("Ingresso"), 0);
  {
    // The API keeps 0.5 GB free and 60 s segments; a 200 MB drive and a short test need less.
    Connessione c(imp.db_file());
    c.esegui("UPDATE nvr_config SET attivo=1, segmento_sec=3, spazio_min_gb=0.001");
    c.commit();
  }
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() >= 2; }, 90)) << imp.tutto_il_log();
  auto problema = [&] { return imp.programma().get("/api/nvr/stato").json.value("problema", ""); };

  double via_massimo = 0;
  for (int g = 0; g < (kProveLunghe ? 4 : 1); ++g) {
    SCOPED_TRACE("distacco " + std::to_string(g + 1));
    const double da = adesso();
    disco->stacca();
    ASSERT_TRUE(attendi([&] { return registratori_in(mp).empty(); }, 30)) << imp.tutto_il_log();
    EXPECT_TRUE(attendi([&] { return problema().starts_with("Unita' USB non collegata: "); }, 20));
    const int righe = imp.righe_indicizzate();
    bool riavviato = false;
    for (const double fine = adesso() + (kProveLunghe ? 60 : 4); adesso() < fine;) {
      std::error_code ec;
      EXPECT_TRUE(fs::is_empty(mp, ec)) << "scritto sul disco di sistema in " << mp;
      EXPECT_EQ(imp.righe_indicizzate(), righe);
      EXPECT_TRUE(registratori_in(mp).empty());
      if (!riavviato) {  // a new process starts with every periodic job due
        riavviato = true;
        ASSERT_EQ(imp.ferma(), 0);
        ASSERT_TRUE(imp.avvia());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    disco->ricollega();
    ASSERT_TRUE(attendi([&] { return !registratori_in(mp).empty(); }, 90)) << imp.tutto_il_log();
    via_massimo = std::max(via_massimo, adesso() - da);
    EXPECT_EQ(disco->mountpoint(), mp);
    EXPECT_TRUE(attendi([&] { return problema().empty(); }, 30)) << problema();
    EXPECT_TRUE(attendi([&] { return imp.righe_indicizzate() >= righe + 2; }, 60));
  }
  ASSERT_EQ(imp.ferma(), 0);
  auto esito = verifica_integrita(imp.db_file(), mp + "/nvr");
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  // The time away, plus the pass noticing the pull, the segment it cut and the stream's opening.
  EXPECT_TRUE(esito.buchi_oltre(via_massimo + 16).empty()) << esito.descrizione();
}

}  // namespace
}  // namespace nvr::affidabilita
