#include "engine/salute_piano.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

constexpr double T = 1'000'000.0;
constexpr double GB = 1e9;

// Recording on, 10 s segments (rule: 2 x 10 + 60 = 80 s), archive connected with room to spare.
OsservaSalute base() {
  OsservaSalute o;
  o.adesso = T;
  o.attivo = true;
  o.segmento_sec = 10;
  o.giorni = 1;
  o.spazio_min_gb = 2;
  o.archivio_collegato = true;
  o.byte_liberi = 500 * GB;
  o.byte_totali = 1000 * GB;
  return o;
}

OsservaCamera cam(bool voluta, double voluta_da, std::optional<double> fine,
                  std::optional<double> avvio, bool in_corso, bool abilitata = true) {
  OsservaCamera c;
  c.id = 3;
  c.nome = "Ingresso";
  c.abilitata = abilitata;
  c.voluta = voluta;
  c.voluta_da = voluta_da;
  c.ultima_fine = fine;
  c.avviato_da = avvio;
  c.in_corso = in_corso;
  return c;
}

TEST(SalutePianoTest, CameraStateAndStoppedRule) {
  struct Caso {
    const char* nome;
    OsservaCamera c;
    bool attivo;
    StatoCamera stato;
    const char* testo;  // of camera_ferma:3, "" when none
  } casi[] = {
      {"recording", cam(true, T - 1000, T - 5, T - 1000, true), true, StatoCamera::registra, ""},
      {"just inside the rule", cam(true, T - 1000, T - 80, T - 1000, true), true,
       StatoCamera::registra, ""},
      {"segment too old though the recorder runs", cam(true, T - 1000, T - 81, T - 1000, true),
       true, StatoCamera::ferma, "La telecamera Ingresso non registra da 81 secondi"},
      {"old segment, wanted only since a moment", cam(true, T - 30, T - 86400, std::nullopt, false),
       true, StatoCamera::in_attesa, ""},
      {"old segment, recorder restarted cleanly", cam(true, T - 9000, T - 9000, T - 20, true), true,
       StatoCamera::registra, ""},
      {"retrying recorder does not refresh it", cam(true, T - 9000, T - 720, std::nullopt, true),
       true, StatoCamera::ferma, "La telecamera Ingresso non registra da 12 minuti"},
      {"never recorded since wanted", cam(true, T - 7200, std::nullopt, std::nullopt, false), true,
       StatoCamera::ferma,
       "La telecamera Ingresso dovrebbe registrare ma non ha salvato nulla negli ultimi 2 ore"},
      {"schedule waiting", cam(false, 0, T - 86400, std::nullopt, false), true,
       StatoCamera::in_attesa, ""},
      {"camera disabled", cam(true, T - 9000, T - 9000, std::nullopt, false, false), true,
       StatoCamera::spenta, ""},
      {"system off", cam(true, T - 9000, T - 9000, std::nullopt, false), false, StatoCamera::spenta,
       ""},
  };
  for (const Caso& k : casi) {
    OsservaSalute o = base();
    o.attivo = k.attivo;
    o.camere = {k.c};
    Salute s = valuta_salute(o);
    ASSERT_EQ(s.telecamere.size(), 1u) << k.nome;
    EXPECT_EQ(s.telecamere[0].stato, k.stato) << k.nome;
    std::string testo;
    for (const Problema& p : s.problemi)
      if (p.codice == "camera_ferma:3") testo = p.testo;
    EXPECT_EQ(testo, k.testo) << k.nome;
  }
}

TEST(SalutePianoTest, SystemProblemsAndForecast) {
  OsservaCamera scrive = cam(true, T - 9000, T - 5, T - 9000, true);
  scrive.byte = static_cast<std::int64_t>(10 * GB);
  scrive.byte_24h = 12 * GB;  // over 12 h: 1 GB/h, 24 GB a day
  scrive.primo_inizio_24h = T - 12 * 3600;
  struct Caso {
    const char* nome;
    void (*cambia)(OsservaSalute&);
    std::vector<std::string> codici;
    std::optional<double> giorni_rimasti;
  } casi[] = {
      {"all well", [](OsservaSalute&) {}, {}, (500 - 2) / 24.0},
      {"archive gone",
       [](OsservaSalute& o) {
         o.archivio_collegato = false;
         o.byte_liberi.reset();
       },
       {"archivio"},
       std::nullopt},
      {"no ffmpeg", [](OsservaSalute& o) { o.ffmpeg = false; }, {"ffmpeg"}, (500 - 2) / 24.0},
      {"under the floor (and 10 GB is under a day)",
       [](OsservaSalute& o) { o.byte_liberi = 1 * GB; },
       {"spazio", "giorni"},
       0.0},
      // 10 GB held + 46 GB above the floor = 56 GB, 2.3 days at 24 GB a day.
      {"fewer days than retention",
       [](OsservaSalute& o) {
         o.byte_liberi = 48 * GB;
         o.giorni = 3;
       },
       {"giorni"},
       46 / 24.0},
      {"nothing recorded: no forecast",
       [](OsservaSalute& o) { o.camere[0].byte_24h = 0; },
       {},
       std::nullopt},
      {"system off: no problems",
       [](OsservaSalute& o) {
         o.attivo = false;
         o.ffmpeg = false;
         o.archivio_collegato = false;
       },
       {},
       (500 - 2) / 24.0},
  };
  for (const Caso& k : casi) {
    OsservaSalute o = base();
    o.camere = {scrive};
    k.cambia(o);
    Salute s = valuta_salute(o);
    std::vector<std::string> codici;
    for (const Problema& p : s.problemi) codici.push_back(p.codice);
    EXPECT_EQ(codici, k.codici) << k.nome;
    ASSERT_EQ(s.giorni_rimasti.has_value(), k.giorni_rimasti.has_value()) << k.nome;
    if (k.giorni_rimasti) {
      EXPECT_NEAR(*s.giorni_rimasti, *k.giorni_rimasti, 1e-9) << k.nome;
    }
  }
  OsservaSalute o = base();
  o.camere = {scrive};
  EXPECT_NEAR(valuta_salute(o).telecamere[0].byte_ora, 1 * GB, 1);
}

TEST(SalutePianoTest, ProblemsAppearOnceKeepTheirStartAndClear) {
  std::vector<Problema> prima = {
      {"archivio", "L'archivio non è collegato", 100},
      {"camera_ferma:3", "La telecamera A non registra da 2 minuti", 50}};
  std::vector<Problema> ora = {{"camera_ferma:3", "La telecamera A non registra da 3 minuti", 50},
                               {"ffmpeg", "ffmpeg manca", 200}};
  CambiProblemi c = confronta_problemi(prima, ora);
  ASSERT_EQ(c.problemi.size(), 2u);
  EXPECT_EQ(c.problemi[0].testo, "La telecamera A non registra da 3 minuti");
  EXPECT_EQ(c.righe, (std::vector<std::string>{"problema: ffmpeg manca",
                                               "risolto: L'archivio non è collegato"}));
  // Unchanged next pass: nothing to log, the start kept.
  ora[1].da = 300;
  CambiProblemi dopo = confronta_problemi(c.problemi, ora);
  EXPECT_TRUE(dopo.righe.empty());
  EXPECT_EQ(dopo.problemi[1].da, 200);

  EXPECT_EQ(durata_leggibile(1), "1 secondo");
  EXPECT_EQ(durata_leggibile(119), "119 secondi");
  EXPECT_EQ(durata_leggibile(3 * 86400 + 5), "3 giorni");
}

}  // namespace
}  // namespace nvr
