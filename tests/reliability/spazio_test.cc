// The archive running out of space on a small real tmpfs (retention making room on one is the
// archive's own root test): when a foreign file holds the space, the status says the archive is
// full and recording stops; it resumes by itself once the space is back.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "storage/comando.h"
#include "testing/tmpfs_di_prova.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPieno = "Spazio esaurito sull'archivio (";
constexpr long long kSoglia = 50'000'000;  // 0.1 GB floor, measured in tenths: below 50 MB

// Grows the foreign file `riempitivo` until `libero` bytes are left available.
void lascia_liberi(const std::string& riempitivo, const std::string& dove, long long libero) {
  std::error_code ec;
  const long long ora = static_cast<long long>(fs::space(dove).available);
  const long long c_e = fs::exists(riempitivo, ec) ? fs::file_size(riempitivo) : 0;
  testing::scrivi_byte(riempitivo, std::max(0LL, c_e + ora - libero));
}

TEST(SpazioTest, FullArchiveStopsRecordingAndResumesWhenSpaceIsBack) {
  if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (tmpfs)";
  testing::TmpfsDiProva disco("size=160m");
  ASSERT_TRUE(disco.montato()) << disco.errore();
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  ASSERT_TRUE(imp.avvia());
  ASSERT_NE(imp.aggiungi_camera("Ingresso"), 0);
  const std::string archivio = disco / "nvr", riempitivo = disco / "altro.bin";
  {
    // The API accepts no archive outside the allowed roots and keeps at least 0.5 GB free.
    Connessione c(imp.db_file());
    c.esegui("UPDATE nvr_config SET attivo=1, cartella=?, segmento_sec=4, spazio_min_gb=0.1",
             {archivio});
    c.commit();
  }
  auto righe = [&](const char* cosa) {
    return scalare(imp.db_file(),
                   std::string("SELECT COALESCE(") + cosa + ",0) FROM nvr_registrazioni");
  };
  auto stato = [&] { return imp.programma().get("/api/nvr/stato").json.value("problema", "x"); };
  ASSERT_TRUE(attendi([&] { return righe("COUNT(*)") >= 3; }, 90)) << imp.tutto_il_log();

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
  ASSERT_EQ(imp.ferma(), 0);
  auto esito = verifica_integrita(imp.db_file(), archivio);
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  EXPECT_TRUE(esito.buchi_oltre(ripreso - pieno_da + 16).empty()) << esito.descrizione();
  EXPECT_LE(esito.buchi_oltre(8).size(), 1u) << esito.descrizione();
}

}  // namespace
}  // namespace nvr::affidabilita
