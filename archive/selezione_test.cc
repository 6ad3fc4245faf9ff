#include "archive/selezione.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/db.h"
#include "testing/ambiente.h"
#include "testing/righe_di_prova.h"

namespace nvr {
namespace {

using testing::aggiungi_evento;
using testing::aggiungi_registrazione;

constexpr double kGiorno = 1714521600.0;  // 2024-05-01 00:00:00 UTC

// Two cameras, two days each, one segment and one event per camera and day: what a selection
// picks, and what its deletion leaves.
TEST(SelezioneTest, EachSelectionPicksItsRowsAndDropsItsEvents) {
  struct Caso {
    const char* nome;
    Selezione s;
    std::vector<std::string> scelti;  // files, sorted
    std::size_t eventi_rimasti;
  };
  const std::pair<double, double> primo = {kGiorno, kGiorno + 86400};
  const std::vector<Caso> casi = {
      {"camera", {1, std::nullopt, false}, {"1-0", "1-1"}, 2},
      {"giorno", {std::nullopt, primo, false}, {"1-0", "2-0"}, 2},
      {"camera e giorno", {1, primo, false}, {"1-0"}, 3},
      {"tutto", {std::nullopt, std::nullopt, true}, {"1-0", "1-1", "2-0", "2-1"}, 0},
      {"camera con tutto", {2, std::nullopt, true}, {"2-0", "2-1"}, 0},  // every event goes
      {"camera senza righe", {7, std::nullopt, false}, {}, 4},
  };
  for (const Caso& caso : casi) {
    SCOPED_TRACE(caso.nome);
    testing::HostDiProva h;
    _init_db();
    for (CamId cam : {1, 2})
      for (int d : {0, 1}) {
        aggiungi_registrazione(cam, kGiorno + d * 86400 + 3600,
                               std::to_string(cam) + "-" + std::to_string(d));
        aggiungi_evento(cam, kGiorno + d * 86400 + 60);
      }
    std::vector<SegmentoScelto> scelti = segmenti_selezionati(caso.s);
    std::vector<std::string> file;
    for (const SegmentoScelto& x : scelti) {
      file.push_back(x.file);
      EXPECT_EQ(std::to_string(x.cam), x.file.substr(0, 1));
    }
    std::sort(file.begin(), file.end());
    EXPECT_EQ(file, caso.scelti);
    cancella_selezione(caso.s, scelti);
    EXPECT_EQ(testing::file_indicizzati().size(), 4 - scelti.size());
    EXPECT_EQ(testing::ts_eventi().size(), caso.eventi_rimasti);
  }
}

}  // namespace
}  // namespace nvr
