#include "web/metriche.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace nvr {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

DatiMetriche fatti_a_mano() {
  DatiMetriche d;
  d.salute.quando = 1700000000.5;
  SaluteCamera strana;
  strana.id = 3;
  strana.nome = "Cortile \"nord\"\\ovest\nbis";
  strana.stato = StatoCamera::ferma;
  strana.ultimo_segmento = 1699999000;
  strana.segmenti = 12;
  strana.byte = 3000000000;
  strana.byte_ora = 7200;
  d.salute.telecamere = {strana};
  d.salute.archivio_collegato = true;
  d.salute.byte_liberi = 5000000000ull;
  d.salute.giorni_rimasti = 0.5;
  d.salute.problemi = {{"camera_ferma:3", "La telecamera non registra", 1699999500}};
  d.giri = {{0.01, 0.1, 1}, {2, 5, 5}, 6, 3.25};
  d.righe_indice = 2500000;
  d.contatori = {{"nvr_mqtt_messaggi_scartati_total", "", 4},
                 {"nvr_sbagliato-nome_total", "x", 1},
                 {"altro_total", "x", 1},
                 {"nvr_mqtt_messaggi_scartati_total", "doppio", 9}};
  return d;
}

TEST(MetricheTest, TextExpositionOfAHandMadeSnapshot) {
  const std::string t = testo_metriche(fatti_a_mano());
  const std::string etichette = "cam=\"3\",nome=\"Cortile \\\"nord\\\"\\\\ovest\\nbis\"";
  for (const std::string& riga : {
           "nvr_telecamera_stato{" + etichette + ",stato=\"ferma\"} 1",
           "nvr_telecamera_stato{" + etichette + ",stato=\"registra\"} 0",
           "nvr_telecamera_ultimo_segmento_timestamp_seconds{" + etichette + "} 1699999000",
           "nvr_telecamera_segmenti_bytes{" + etichette + "} 3000000000",
           "nvr_telecamera_scrittura_bytes_al_secondo{" + etichette + "} 2",
           std::string("nvr_archivio_collegato 1"),
           std::string("nvr_archivio_liberi_bytes 5000000000"),
           std::string("nvr_archivio_autonomia_seconds 43200"),
           std::string("nvr_problemi 1"),
           std::string(
               "nvr_problema_inizio_timestamp_seconds{codice=\"camera_ferma:3\"} 1699999500"),
           std::string("nvr_salute_aggiornata_timestamp_seconds 1700000000.5"),
           std::string("# TYPE nvr_motore_giro_durata_seconds histogram"),
           std::string("nvr_motore_giro_durata_seconds_bucket{le=\"0.01\"} 2\n"
                       "nvr_motore_giro_durata_seconds_bucket{le=\"0.1\"} 5\n"
                       "nvr_motore_giro_durata_seconds_bucket{le=\"1\"} 5\n"
                       "nvr_motore_giro_durata_seconds_bucket{le=\"+Inf\"} 6\n"
                       "nvr_motore_giro_durata_seconds_sum 3.25\n"
                       "nvr_motore_giro_durata_seconds_count 6"),
           std::string("nvr_indice_righe 2500000"),
           std::string("# TYPE nvr_mqtt_messaggi_scartati_total counter\n"
                       "nvr_mqtt_messaggi_scartati_total 4"),
       })
    EXPECT_THAT(t, HasSubstr(riga + "\n")) << t;
  EXPECT_THAT(t, Not(HasSubstr("sbagliato"))) << "a name that is no metric name is left out";
  EXPECT_THAT(t, Not(HasSubstr("altro_total")));
  EXPECT_THAT(t, Not(HasSubstr("_total 9"))) << "a counter raised twice under one name";
  EXPECT_THAT(t, Not(HasSubstr("La telecamera non registra")));
  EXPECT_THAT(t, Not(HasSubstr("nvr_archivio_totali_bytes"))) << "unknown values are not zero";

  // One HELP and one TYPE per family, each before its samples; every line is one of the three.
  std::map<std::string, int> help, tipo;
  std::istringstream righe(t);
  for (std::string r; std::getline(righe, r);) {
    if (r.starts_with("# HELP "))
      ++help[r.substr(7, r.find(' ', 7) - 7)];
    else if (r.starts_with("# TYPE "))
      ++tipo[r.substr(7, r.find(' ', 7) - 7)];
    else
      EXPECT_TRUE(r.starts_with("nvr_")) << r;
  }
  EXPECT_EQ(help.size(), tipo.size());
  for (const auto& [nome, n] : tipo) EXPECT_EQ(n, 1) << nome;
  for (const auto& [nome, n] : help) EXPECT_EQ(n, 1) << nome;
}

TEST(MetricheTest, BeforeTheFirstPassTheHistogramStillHasItsInfBucket) {
  const std::string t = testo_metriche({});
  EXPECT_THAT(t, HasSubstr("nvr_motore_giro_durata_seconds_bucket{le=\"+Inf\"} 0\n"));
  EXPECT_THAT(t, Not(HasSubstr("nvr_salute_aggiornata")));
  EXPECT_THAT(t, Not(HasSubstr("nvr_indice_righe")));
}

}  // namespace
}  // namespace nvr
