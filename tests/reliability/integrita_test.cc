// The archive check itself must see every kind of loss, or the whole suite proves nothing.
#include "tests/reliability/integrita.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/db.h"
#include "core/processo.h"
#include "storage/comando.h"
#include "testing/ambiente.h"

namespace nvr::affidabilita {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

class IntegritaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!programma_presente("ffmpeg")) GTEST_SKIP() << "ffmpeg non installato";
    testing::HostDiProva host(testing::HostDiProva::Aggancia::kSi);
    _init_db();
    fs::copy_file(host.db_file, db);
    fs::create_directories(giorno);
    fs::create_directories(archivio + "/Cam/in_corso");
    auto r = _comando({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                       "testsrc2=size=160x120:rate=10", "-t", "1", "-c:v", "libx264", "-y",
                       giorno + "/a.mp4"},
                      60);
    ASSERT_EQ(r.codice, 0) << r.err;
    fs::copy_file(giorno + "/a.mp4", giorno + "/b.mp4");
  }
  void riga(const std::string& file, double inizio, double fine) {
    Connessione c(db);
    c.esegui("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, ?, ?, ?)",
             {inizio, fine, file});
    c.commit();
  }

  testing::CartellaTemporanea t;
  std::string db = t / "nvr.db";
  std::string archivio = t / "archivio";
  std::string giorno = archivio + "/Cam/2026-11-23";
};

TEST_F(IntegritaTest, AgreementIsCoherentAndEveryKindOfLossIsNamed) {
  riga(giorno + "/a.mp4", 1000, 1010);
  riga(giorno + "/b.mp4", 1010, 1020);
  std::ofstream(archivio + "/Cam/in_corso/c.mp4") << "in registrazione";
  auto bene = verifica_integrita(db, archivio);
  EXPECT_TRUE(bene.coerente()) << bene.descrizione();
  EXPECT_EQ(bene.file, 2);
  EXPECT_EQ(bene.righe, 2);
  EXPECT_EQ(bene.in_corso.size(), 1u);
  EXPECT_TRUE(bene.buchi.empty());

  // A file nobody indexed, a row whose file went, a file that does not play, a hole.
  std::ofstream(giorno + "/rotto.mp4") << std::string(5000, 'x');
  riga(giorno + "/rotto.mp4", 1020, 1030);
  std::ofstream(giorno + "/orfano.mp4") << "x";
  fs::remove(giorno + "/b.mp4");
  riga(giorno + "/d.mp4", 1100, 1110);
  fs::copy_file(giorno + "/a.mp4", giorno + "/d.mp4");

  auto male = verifica_integrita(db, archivio);
  EXPECT_FALSE(male.coerente());
  EXPECT_THAT(male.senza_riga, ElementsAre(giorno + "/orfano.mp4"));
  EXPECT_THAT(male.senza_file, ElementsAre(giorno + "/b.mp4"));
  EXPECT_THAT(male.illeggibili, ::testing::UnorderedElementsAre(giorno + "/rotto.mp4",
                                                               giorno + "/orfano.mp4"));
  ASSERT_EQ(male.buchi_oltre(60).size(), 1u);
  EXPECT_EQ(male.buchi_oltre(60)[0].secondi(), 70);
  EXPECT_TRUE(male.buchi_oltre(70).empty());
}

}  // namespace
}  // namespace nvr::affidabilita
