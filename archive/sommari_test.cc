#include "archive/sommari.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "archive/allineamento.h"
#include "core/db.h"
#include "testing/ambiente.h"

namespace nvr {
namespace {

using testing::CartellaTemporanea;
using testing::HostDiProva;
using testing::scrivi_file;

// The overview as the plain statement gives it: every row, summed in the order read.
RiepilogoArchivio letterale(Zona z) {
  RiepilogoArchivio r;
  Connessione c = _db();
  for (const Riga& x : c.righe("SELECT cam_id, inizio, fine, dimensione FROM nvr_registrazioni "
                               "ORDER BY cam_id, inizio")) {
    const double da = come_reale(x[1]), a = come_reale(x[2]);
    const double byte = static_cast<double>(come_intero(x[3]));
    RiepilogoCamera& cam = r.camere[static_cast<CamId>(come_intero(x[0]))];
    cam.totale.aggiungi(byte, a - da);
    cam.giorni[formatta(scomponi(da, z), "%Y-%m-%d")].aggiungi(byte, a - da);
    ++r.righe;
    r.byte += byte;
  }
  return r;
}

bool uguali(const Somma& a, const Somma& b) {
  return a.n == b.n && a.byte == b.byte && a.sec == b.sec;
}

void confronta(const RiepilogoArchivio& atteso, const std::optional<RiepilogoArchivio>& r,
               const std::string& passo) {
  ASSERT_TRUE(r) << passo;
  EXPECT_EQ(r->righe, atteso.righe) << passo;
  EXPECT_EQ(r->byte, atteso.byte) << passo;
  ASSERT_EQ(r->camere.size(), atteso.camere.size()) << passo;
  for (const auto& [id, cam] : atteso.camere) {
    const RiepilogoCamera& altra = r->camere.at(id);
    EXPECT_TRUE(uguali(cam.totale, altra.totale)) << passo << ", camera " << id;
    ASSERT_EQ(cam.giorni.size(), altra.giorni.size()) << passo << ", camera " << id;
    for (const auto& [giorno, s] : cam.giorni) {
      auto it = altra.giorni.find(giorno);
      ASSERT_NE(it, altra.giorni.end()) << passo << ", camera " << id << " " << giorno;
      EXPECT_TRUE(uguali(s, it->second)) << passo << ", camera " << id << " " << giorno;
    }
  }
}

class SommariTest : public ::testing::Test {
 protected:
  void SetUp() override {
    _init_db();
    h_.imposta_zona("Europe/Rome");
    cfg_.cartella = archivio_.percorso();
  }

  // Segments back to back over the two clock-change days of 2024 and the midnights around
  // them, some crossing midnight, with times to the microsecond; every fifth file missing.
  void genera(std::int64_t cam, double da, int quanti, double passo) {
    Connessione c = _db();
    for (int i = 0; i < quanti; ++i) {
      const double inizio = da + i * passo + (i % 7) * 0.000137;
      const std::string file = archivio_ / ("cam_" + std::to_string(cam) + "/" +
                                            std::to_string(static_cast<long long>(da) / 86400) +
                                            "/" + std::to_string(i) + ".mp4");
      if (i % 5 != 3) scrivi_file(file, "x");
      c.esegui(
          "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) "
          "VALUES (?,?,?,?,?,'')",
          {cam, inizio, inizio + passo - 0.25 + (i % 3) * 0.5, file,
           std::int64_t{1000003} * (i % 11)});
    }
    c.commit();
  }

  std::int64_t senza_file_letterale() {
    std::vector<std::string> file;
    Connessione c = _db();
    for (const Riga& r : c.righe("SELECT id, file FROM nvr_registrazioni"))
      file.push_back(come_testo(r[1]));
    return static_cast<std::int64_t>(_mancanti(file).size());
  }

  HostDiProva h_;
  CartellaTemporanea archivio_;
  Config cfg_;
};

TEST_F(SommariTest, SameAnswersAsThePlainStatementsThroughEveryChange) {
  const double marzo = 1711843200, ottobre = 1729987200;  // 2024-03-31 and 10-27, 00:00 UTC
  genera(1, marzo - 86400, 3 * 288, 300);
  genera(2, ottobre - 86400 - 150, 3 * 96, 900);
  // Rows the recorder never writes, which the overview still counts.
  h_.sql(
      "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione) VALUES "
      "(NULL, 1729990000, 1729990300, '/x/a.mp4', NULL), (7, 1729990000, 1729989000, "
      "'/x/b.mp4', 5), ('2', '1729990000.5', 1729990100, '/x/c.mp4', '17')");
  Zona z = _fuso();
  EXPECT_FALSE(riepilogo_da_sommari(z)) << "prima di costruirli non ci sono";
  costruisci_sommari(z);
  confronta(letterale(z), riepilogo_da_sommari(z), "costruiti");

  struct Passo {
    const char* nome;
    std::string sql;
  };
  const Passo passi[] = {
      {"nuove righe", ""},
      {"righe tolte", "DELETE FROM nvr_registrazioni WHERE id % 13 = 4"},
      {"fine e camera cambiate dall'applicazione",
       "UPDATE nvr_registrazioni SET fine = fine + 3600, cam_id = 3 WHERE id % 17 = 2"},
      {"un giorno intero tolto",
       "DELETE FROM nvr_registrazioni WHERE cam_id = 1 AND inizio >= "
       "1711839600 AND inizio < 1711922400"},
  };
  for (const Passo& p : passi) {
    if (p.sql.empty())
      genera(1, marzo + 2 * 86400 - 30, 40, 60);
    else
      h_.sql(p.sql);
    confronta(letterale(z), riepilogo_da_sommari(z), p.nome);
  }

  // Reconciliation drops exactly the rows without a file; the count before agrees with it.
  const std::int64_t mancanti = senza_file_letterale();
  ASSERT_GT(mancanti, 0);
  EXPECT_EQ(conta_righe_senza_file(cfg_, 0), mancanti);
  EXPECT_EQ(_allinea(cfg_), mancanti);
  EXPECT_EQ(senza_file_letterale(), 0);
  confronta(letterale(z), riepilogo_da_sommari(z), "dopo l'allineamento");

  // Another zone moves the midnights: the sums stand aside until rebuilt for it.
  h_.imposta_zona("America/Santiago");
  EXPECT_FALSE(riepilogo_da_sommari(_fuso()));
  costruisci_sommari(_fuso());
  confronta(letterale(_fuso()), riepilogo_da_sommari(_fuso()), "altro fuso");
}

}  // namespace
}  // namespace nvr
