// The archive running out of space: a small real tmpfs as the archive's file system. While old
// segments can make room, retention makes it and recording goes on; when a foreign file holds the
// space, the status says the archive is full, and recording resumes once the space is back.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "core/db.h"
#include "core/processo.h"
#include "storage/comando.h"
#include "testing/tmpfs_di_prova.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;
using prova::attendi;

constexpr const char* kPieno = "Spazio esaurito sull'archivio (";

double adesso() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

struct Righe {
  std::int64_t quante = 0, prima = 0, ultima = 0, byte = 0;
};

// The index's rows up to id `fino_a` (all of them by default).
Righe righe(const Impianto& imp, std::int64_t fino_a = INT64_MAX) {
  Connessione c(imp.db_file());
  auto r = c.righe(
      "SELECT COUNT(*), COALESCE(MIN(id),0), COALESCE(MAX(id),0), COALESCE(SUM(dimensione),0) "
      "FROM nvr_registrazioni WHERE id<=?",
      {fino_a});
  return {come_intero(r[0][0]), come_intero(r[0][1]), come_intero(r[0][2]), come_intero(r[0][3])};
}

// Makes the foreign file `riempitivo` as large as needed to leave `libero` bytes available.
void lascia_liberi(const std::string& riempitivo, const std::string& dove, long long libero) {
  std::error_code ec;
  const long long ora = static_cast<long long>(fs::space(dove).available);
  const long long c_e =
      fs::exists(riempitivo, ec) ? static_cast<long long>(fs::file_size(riempitivo)) : 0;
  testing::scrivi_byte(riempitivo, std::max(0LL, c_e + ora - libero));
}

TEST(SpazioTest, RetentionMakesRoomWhileItCanAndTheStatusSaysWhenItCannot) {
  if (!_sono_root()) GTEST_SKIP() << "serve l'utente root (tmpfs)";
  if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
  testing::TmpfsDiProva disco("size=160m");
  ASSERT_TRUE(disco.montato()) << disco.errore();
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  std::string perche;
  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  const std::int64_t cam = imp.aggiungi_camera("Ingresso");
  ASSERT_NE(cam, 0);
  const std::string archivio = disco / "nvr";
  const std::string riempitivo = disco / "altro.bin";
  {
    // Written in the database: the API accepts no archive outside the allowed roots (the tmpfs
    // lies in a temporary folder) and keeps at least 0.5 GB free. Free space is measured in
    // tenths of GB, so a floor of 0.1 GB means "below 50 MB available".
    Connessione c(imp.db_file());
    c.esegui("UPDATE nvr_config SET attivo=1, cartella=?, segmento_sec=4, spazio_min_gb=0.1",
             {archivio});
    c.commit();
  }
  ASSERT_TRUE(attendi([&] { return righe(imp).quante >= 4; }, 90)) << imp.tutto_il_log();

  // Status seen by the page, polled all along: never "full" while old segments can go.
  std::atomic<bool> guarda{true};
  std::atomic<int> letture{0}, pieno{0};
  std::thread sentinella([&] {
    while (guarda) {
      auto s = imp.programma().get("/api/nvr/stato");
      if (s.json.value("problema", "").starts_with(kPieno)) ++pieno;
      ++letture;
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
  });

  // A foreign file leaves the archive just below its floor, by a fraction of a segment: from
  // now on every few seconds of recording must be paid for with the oldest segments. (Far below
  // it, three deletions that do not change the free space shown in tenths of GB end the
  // clean-up, and the archive counts as full.)
  const Righe all_inizio = righe(imp);
  const long long segmento = all_inizio.byte / all_inizio.quante;
  const long long soglia = 50'000'000;
  lascia_liberi(riempitivo, disco.percorso(), soglia - std::min(segmento / 4, 100'000LL));
  const double osserva = kProveLunghe ? 300 : 10;
  ASSERT_TRUE(attendi([&] { return righe(imp).prima > all_inizio.prima; }, 30))
      << "nessun segmento tolto per fare spazio\n"
      << imp.tutto_il_log();
  std::this_thread::sleep_for(std::chrono::duration<double>(osserva));
  guarda = false;
  sentinella.join();
  const Righe dopo = righe(imp);
  EXPECT_EQ(pieno, 0) << imp.tutto_il_log();
  EXPECT_EQ(imp.tutto_il_log().find(kPieno), std::string::npos) << imp.tutto_il_log();
  // Recording (a recorder that ended is started again after its back-off).
  EXPECT_TRUE(attendi([&] { return !registratori_in(archivio).empty(); }, 20))
      << imp.tutto_il_log();
  EXPECT_GT(dopo.ultima, all_inizio.ultima + 3);  // recording went on
  // Oldest first: what is left is one unbroken run of the newest rows.
  EXPECT_EQ(dopo.quante, dopo.ultima - dopo.prima + 1);
  const std::int64_t tolti = dopo.prima - all_inizio.prima;
  EXPECT_GT(tolti, 0);

  // Now the foreign file takes even what deleting every segment would give back.
  const Righe prima_del_pieno = righe(imp);
  const double pieno_da = adesso();
  lascia_liberi(riempitivo, disco.percorso(), soglia - dopo.byte - 10'000'000);
  EXPECT_TRUE(attendi(
      [&] {
        return imp.programma().get("/api/nvr/stato").json.value("problema", "").starts_with(kPieno);
      },
      30))
      << imp.tutto_il_log();
  EXPECT_NE(imp.tutto_il_log().find("Spazio esaurito sull'archivio (0.0 GB liberi)"),
            std::string::npos)
      << imp.tutto_il_log();
  EXPECT_TRUE(attendi([&] { return registratori_in(archivio).empty(); }, 20));
  const Righe a_secco = righe(imp);
  std::this_thread::sleep_for(std::chrono::seconds(kProveLunghe ? 30 : 3));
  EXPECT_EQ(registratori_in(archivio).size(), 0u);

  // The space is back: recording resumes by itself.
  fs::remove(riempitivo);
  EXPECT_TRUE(attendi([&] { return !registratori_in(archivio).empty(); }, 30))
      << imp.tutto_il_log();
  const double ripreso = adesso();
  EXPECT_TRUE(attendi(
      [&] { return imp.programma().get("/api/nvr/stato").json.value("problema", "x").empty(); },
      20));
  EXPECT_TRUE(attendi([&] { return righe(imp).ultima >= a_secco.ultima + 2; }, 60));
  ASSERT_EQ(imp.ferma(), 0);
  const std::int64_t invano = prima_del_pieno.quante - righe(imp, prima_del_pieno.ultima).quante;
  EXPECT_GT(invano, 0);  // the forced clean-up did try before declaring the archive full

  auto esito = verifica_integrita(imp.db_file(), archivio);
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  // Retention only takes the oldest, so while there was room to make no hole opened beyond a
  // recorder's own cut; the full archive stopped recording from the moment the foreign file
  // grew until it went (plus a pass, the cut segment and the stream's opening: 16 s).
  // (Another program's start on this machine stops every recorder it finds: the log shows it.)
  EXPECT_TRUE(esito.buchi_oltre(ripreso - pieno_da + 16).empty())
      << esito.descrizione() << imp.tutto_il_log();
  EXPECT_LE(esito.buchi_oltre(8).size(), 1u) << esito.descrizione() << imp.tutto_il_log();
  double peggiore = 0;
  for (const Buco& b : esito.buchi) peggiore = std::max(peggiore, b.secondi());
  std::printf(
      "[affidabilita] archivio pieno: tmpfs 160 MB, soglia 50 MB liberi; %lld segmenti tolti per "
      "fare spazio in %.0f s senza \"Spazio esaurito\" (%d letture dello stato); con lo spazio "
      "occupato da altro %lld segmenti tolti invano, registrazione ferma %.0f s; %d segmenti "
      "verificati (%lld byte), buco massimo %.1f s\n",
      static_cast<long long>(tolti), osserva, letture.load(), static_cast<long long>(invano),
      ripreso - pieno_da, esito.file, static_cast<long long>(esito.byte), peggiore);
}

}  // namespace
}  // namespace nvr::affidabilita
