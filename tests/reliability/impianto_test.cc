// The baseline every fault test compares against: a run stopped and restarted the ordinary way
// loses nothing, and the restarted program is logged into with its new password.
#include <gtest/gtest.h>

#include "core/processo.h"
#include "tests/reliability/impianto.h"

namespace nvr::affidabilita {
namespace {

using prova::attendi;

TEST(ImpiantoTest, StopAndRestartLoseNothing) {
  if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
  Impianto imp;
  if (auto perche = imp.avvia_telecamera(); !perche.empty()) GTEST_SKIP() << perche;
  std::string perche;
  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  ASSERT_NE(imp.aggiungi_camera("Ingresso"), 0);
  ASSERT_EQ(imp.registra(true), 200);
  imp.segmenti_di(3);
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() >= 2; }, 60)) << imp.tutto_il_log();

  ASSERT_EQ(imp.ferma(), 0);
  EXPECT_TRUE(registratori_in(imp.archivio()).empty());
  ASSERT_TRUE(imp.avvia({}, &perche)) << perche;
  EXPECT_NE(imp.password()[0], imp.password()[1]);
  const int prima = imp.righe_indicizzate();
  ASSERT_TRUE(attendi([&] { return imp.righe_indicizzate() >= prima + 2; }, 60))
      << imp.tutto_il_log();
  ASSERT_EQ(imp.ferma(), 0);
  EXPECT_TRUE(registratori_in(imp.archivio()).empty());

  auto esito = imp.integrita();
  EXPECT_TRUE(esito.coerente()) << esito.descrizione();
  EXPECT_GE(esito.file, 4);
  // Only the restart may leave a hole: the time to stop, start and open the stream again.
  EXPECT_LE(esito.buchi_oltre(10).size(), 0u) << esito.descrizione();
  EXPECT_LE(esito.buchi.size(), 1u) << esito.descrizione();
}

}  // namespace
}  // namespace nvr::affidabilita
