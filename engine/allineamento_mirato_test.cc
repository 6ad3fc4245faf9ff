#include "engine/allineamento_mirato.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/db.h"
#include "core/tempo.h"
#include "testing/ambiente.h"

namespace nvr {
namespace {

namespace fs = std::filesystem;

TEST(AllineamentoMiratoTest, FullRunUnlessRememberedAndRecentOtherwiseOnlyChangedFolders) {
  const MemoriaAllineamento ricordo{"/a||", 1000, {{"/a", "1"}, {"/a/C", "2"}, {"/a/C/g", "3"}}};
  const FirmeCartelle uguali = ricordo.firme;
  struct Caso {
    const char* nome;
    MemoriaAllineamento prima;
    std::string archivio;
    std::optional<FirmeCartelle> firme;
    double adesso;
    SceltaAllineamento attesa;
  };
  const Caso casi[] = {
      {"nothing remembered", {}, "/a||", uguali, 1300, {true, {}}},
      {"another archive", ricordo, "/b||", uguali, 1300, {true, {}}},
      {"folders unreadable", ricordo, "/a||", std::nullopt, 1300, {true, {}}},
      {"an hour since the full run",
       ricordo,
       "/a||",
       uguali,
       1000 + kAllineamentoCompleto,
       {true, {}}},
      {"nothing changed", ricordo, "/a||", uguali, 1300, {false, {}}},
      {"changed, new, gone, just changed",
       ricordo,
       "/a||",
       FirmeCartelle{{"/a", "1"}, {"/a/C", "9"}, {"/a/D", ""}, {"/a/E", "4"}},
       1300,
       {false, {"/a/C", "/a/D", "/a/E", "/a/C/g"}}},
  };
  for (const Caso& c : casi) {
    SceltaAllineamento s = scegli_allineamento(c.prima, c.archivio, c.firme, c.adesso);
    EXPECT_EQ(s.completo, c.attesa.completo) << c.nome;
    EXPECT_EQ(s.da_guardare, c.attesa.da_guardare) << c.nome;
  }
}

// Rows whose file went are removed where the archive changed, and by the hourly full run
// elsewhere.
TEST(AllineamentoMiratoTest, RowsOfFilesDeletedByHandGoAtTheNextRun) {
  testing::HostDiProva host;
  testing::CartellaTemporanea radice;
  _init_db();
  Config cfg;
  cfg.cartella = radice.percorso();
  const std::string giorno = radice / "Garage/2024-05-01", altro = radice / "Garage/2024-05-02";
  const std::vector<std::string> file = {giorno + "/12-00-00.mp4", giorno + "/12-05-00.mp4",
                                         altro + "/12-00-00.mp4", "/non-esiste/12-00-00.mp4"};
  {
    Connessione c = _db();
    for (const std::string& f : file) {
      testing::scrivi_file(f.starts_with("/non-esiste") ? radice / "fuori.mp4" : f, "x");
      c.esegui("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, 0, 1, ?)",
               {f});
    }
    c.commit();
  }
  auto restano = [] {
    Connessione c = _db();
    return come_intero(c.righe("SELECT COUNT(*) FROM nvr_registrazioni").at(0).at(0));
  };
  const double t = _ora() + 10;                 // every folder's last change counts as settled
  EXPECT_EQ(allinea_dove_cambiato(cfg, t), 1);  // the first run is full: the row outside goes
  EXPECT_EQ(allinea_dove_cambiato(cfg, t + 300), 0);

  fs::remove(file[1]);
  EXPECT_EQ(allinea_dove_cambiato(cfg, t + 600), 1);
  fs::remove_all(altro);
  EXPECT_EQ(allinea_dove_cambiato(cfg, t + 900), 1);
  EXPECT_EQ(restano(), 1);

  // Outside the archive's folders only the hourly full run looks.
  {
    Connessione c = _db();
    c.esegui("INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file) VALUES (1, 0, 1, ?)",
             {file[3]});
    c.commit();
  }
  EXPECT_EQ(allinea_dove_cambiato(cfg, t + 1200), 0);
  EXPECT_EQ(allinea_dove_cambiato(cfg, t + 900 + kAllineamentoCompleto), 1);
  EXPECT_EQ(restano(), 1);
  azzera_allineamento_mirato_per_test();
}

}  // namespace
}  // namespace nvr
