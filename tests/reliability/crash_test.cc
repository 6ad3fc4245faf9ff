// The program killed with SIGKILL at random moments and started again on the same data folder:
// its recorders outlive it, the next start interrupts them so they close their last segment,
// and that segment is indexed once like every other. The delays come from a printed seed
// (NVR_AFF_SEME replays a run).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "core/processo.h"
#include "testing/processi.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

using prova::attendi;

constexpr const char* kRimasti = "ffmpeg rimasti da un avvio precedente: fermati";

int volte(const std::string& testo, const std::string& riga) {
  int n = 0;
  for (auto i = testo.find(riga); i != std::string::npos; i = testo.find(riga, i + 1)) ++n;
  return n;
}

double adesso() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

unsigned seme() {
  if (const char* s = std::getenv("NVR_AFF_SEME")) return static_cast<unsigned>(std::stoul(s));
  return std::random_device{}();
}

TEST(CrashTest, KilledAtRandomMomentsLosesNothing) {
  if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
  if (!programma_presente("pkill")) GTEST_SKIP() << "pkill non installato";
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  const unsigned s = seme();
  std::printf("[affidabilita] crash: seme %u (NVR_AFF_SEME=%u lo ripete)\n", s, s);
  std::mt19937 caso(s);
  std::uniform_real_distribution<double> vita(1.0, 6.0), pausa(0.0, 2.0);

  std::string perche;
  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  ASSERT_NE(imp.aggiungi_camera("Ingresso"), 0);
  ASSERT_EQ(imp.registra(true), 200);
  imp.segmenti_di(3);

  const int uccisioni = kProveLunghe ? 12 : 2;
  double fermo_massimo = 0;
  for (int i = 0; i < uccisioni; ++i) {
    ASSERT_TRUE(attendi([&] { return !registratori_in(imp.archivio()).empty(); }, 90))
        << "uccisione " << i << ": nessun registratore\n"
        << imp.tutto_il_log();
    const double attesa = vita(caso), fermo = pausa(caso);
    std::this_thread::sleep_for(std::chrono::duration<double>(attesa));
    // A recorder may be between two lives (back-off) right then: the kill waits for one, since
    // the point is to leave one behind.
    std::vector<pid_t> rimasti;
    ASSERT_TRUE(attendi([&] { return !(rimasti = registratori_in(imp.archivio())).empty(); }, 90))
        << imp.tutto_il_log();
    const double ucciso = adesso();
    imp.uccidi();
    // A crash leaves the recorders running: they are in a session of their own.
    for (pid_t pid : rimasti) EXPECT_TRUE(testing::stato_processo(pid)) << pid;
    std::this_thread::sleep_for(std::chrono::duration<double>(fermo));
    ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
    fermo_massimo = std::max(fermo_massimo, adesso() - ucciso);
    ASSERT_TRUE(attendi(
        [&] { return volte(imp.programma().uscita() + imp.programma().errori(), kRimasti) == 1; },
        60))
        << "uccisione " << i << " dopo " << attesa << " s\n"
        << imp.tutto_il_log();
    for (pid_t pid : rimasti) EXPECT_TRUE(testing::attendi_sparito(pid, 30)) << pid;
  }

  // The last run records a little, then switches off: the index drains the in-progress
  // folders while recording is off, so every segment the killed runs left behind gets its row.
  const int prima = imp.righe_indicizzate();
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() >= prima + 2; }, 90))
      << imp.tutto_il_log();
  ASSERT_EQ(imp.registra(false), 200);
  ASSERT_TRUE(attendi([&] { return imp.integrita(false).in_corso.empty(); }, 90))
      << imp.integrita(false).descrizione() << imp.tutto_il_log();
  ASSERT_EQ(imp.ferma(), 0);
  EXPECT_TRUE(registratori_in(imp.archivio()).empty());

  auto esito = imp.integrita();
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  EXPECT_TRUE(esito.in_corso.empty()) << esito.descrizione();
  // The old recorders keep recording while the program is down; the hole of a kill is the
  // down time plus the next start: program up, orphan sweep (3 s pause), first pass, stream
  // opened again. 30 s covers that start on a loaded machine.
  const double limite = fermo_massimo + 30;
  EXPECT_TRUE(esito.buchi_oltre(limite).empty()) << "limite " << limite << " s\n"
                                                 << esito.descrizione();
  double buco_massimo = 0;
  for (const auto& b : esito.buchi) buco_massimo = std::max(buco_massimo, b.secondi());
  std::printf(
      "[affidabilita] crash: %d SIGKILL (seme %u), fermo max %.1f s, %d spezzoni verificati, %lld "
      "byte, %zu buchi (max %.1f s), doppi %zu\n",
      uccisioni, s, fermo_massimo, esito.file, static_cast<long long>(esito.byte),
      esito.buchi.size(), buco_massimo, esito.doppi.size());
}

}  // namespace
}  // namespace nvr::affidabilita
