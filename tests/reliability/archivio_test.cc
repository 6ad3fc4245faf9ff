// The archive's drive failing under the recording program, with real file systems (root only).
// Pulled out: a real ext4 image on a loop device, chosen through the storage and configuration
// API as the storage page does (only lsblk is a stand-in: it cannot call a loop device a
// removable USB disk). While the drive is away, and across a restart meanwhile, nothing is
// written to the system disk below the empty mount point; when it is plugged in again recording
// resumes there and nothing recorded is lost.
// Full: a small real tmpfs (retention making room on one is the archive's own root test); when a
// foreign file holds the space, the status says the archive is full and recording stops; it
// resumes by itself once the space is back.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "storage/comando.h"
#include "testing/loop.h"
#include "testing/stand_in.h"
#include "testing/tmpfs_di_prova.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUuid = "a7f10c2e-5d3b-4c11-9e0f-77aa31c0d4e2";

TEST(ArchivioTest, PulledDriveWritesNothingElsewhereAndRecordingResumesWhenBack) {
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
  // A 200 MB drive and a short test need less than the API's 0.5 GB free and 60 s segments.
  ASSERT_TRUE(imp.registra(2, "segmento_sec=3, spazio_min_gb=0.001"));
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
  // The time away, plus the pass noticing the pull, the segment it cut and the stream's opening.
  EXPECT_TRUE(imp.ferma_e_verifica(via_massimo + 16, mp + "/nvr"));
}

constexpr const char* kPieno = "Spazio esaurito sull'archivio (";
constexpr long long kSoglia = 50'000'000;  // 0.1 GB floor, measured in tenths: below 50 MB

// Grows the foreign file `riempitivo` until `libero` bytes are left available.
void lascia_liberi(const std::string& riempitivo, const std::string& dove, long long libero) {
  std::error_code ec;
  const long long ora = static_cast<long long>(fs::space(dove).available);
  const long long c_e = fs::exists(riempitivo, ec) ? fs::file_size(riempitivo) : 0;
  testing::scrivi_byte(riempitivo, std::max(0LL, c_e + ora - libero));
}

TEST(ArchivioTest, FullArchiveStopsRecordingAndResumesWhenSpaceIsBack) {
  if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (tmpfs)";
  testing::TmpfsDiProva disco("size=160m");
  ASSERT_TRUE(disco.montato()) << disco.errore();
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  ASSERT_TRUE(imp.avvia());
  // The API accepts no archive outside the allowed roots and keeps at least 0.5 GB free.
  const std::string archivio = disco / "nvr", riempitivo = disco / "altro.bin";
  ASSERT_TRUE(imp.registra(3, "cartella=?, segmento_sec=4, spazio_min_gb=0.1", {archivio}));
  auto righe = [&](const char* cosa) {
    return scalare(imp.db_file(),
                   std::string("SELECT COALESCE(") + cosa + ",0) FROM nvr_registrazioni");
  };
  auto stato = [&] { return imp.programma().get("/api/nvr/stato").json.value("problema", "x"); };

  // A foreign file takes even what deleting every segment would give back.
  const double pieno_da = adesso();
  lascia_liberi(riempitivo, disco.percorso(), kSoglia - righe("SUM(dimensione)") - 10'000'000);
  EXPECT_TRUE(attendi([&] { return stato().starts_with(kPieno); }, 30)) << imp.tutto_il_log();
  EXPECT_TRUE(attendi([&] { return registratori_in(archivio).empty(); }, 20));
  std::this_thread::sleep_for(std::chrono::seconds(kProveLunghe ? 30 : 3));
  EXPECT_TRUE(registratori_in(archivio).empty());
  const std::int64_t a_secco = righe("MAX(id)");
  fs::remove(riempitivo);
  EXPECT_TRUE(attendi([&] { return stato().empty(); }, 30)) << imp.tutto_il_log();
  EXPECT_TRUE(attendi([&] { return righe("MAX(id)") >= a_secco + 2; }, 60));
  const double ripreso = adesso();
  EXPECT_TRUE(imp.ferma_e_verifica(ripreso - pieno_da + 16, archivio));
  auto esito = verifica_integrita(imp.db_file(), archivio, false);
  EXPECT_LE(esito.buchi_oltre(8), 1) << esito.descrizione();
}

}  // namespace
}  // namespace nvr::affidabilita
