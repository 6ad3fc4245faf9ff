#include "archive/pulizia_piano.h"

#include <gtest/gtest.h>

#include <map>

namespace nvr {
namespace {

const std::string kRadice = "/arch/";

// Links as a table: a path not listed resolves to itself.
RisolviPercorso collegamenti(std::map<std::string, std::string> m) {
  return [m](const std::string& p) {
    auto it = m.find(p);
    return it == m.end() ? p : it->second;
  };
}

TEST(PuliziaPianoTest, RootIsComparedWithExactlyOneSlash) {
  EXPECT_EQ(radice_confronto("/arch"), kRadice);
  EXPECT_EQ(radice_confronto("/arch//"), kRadice);
  EXPECT_EQ(radice_confronto("/"), "/");
}

TEST(PuliziaPianoTest, InsideTheArchiveForAgeAndForSpace) {
  const RisolviPercorso reale = collegamenti({{"/arch/link.mp4", "/fuori/x.mp4"},
                                              {"/altrove/dentro.mp4", "/arch/y.mp4"},
                                              {"/arch/../fuori/z.mp4", "/fuori/z.mp4"}});
  struct Caso {
    std::string file;
    bool per_eta, per_spazio;
  };
  const std::vector<Caso> casi = {
      {"/arch/cam/a.mp4", true, true},
      {"/arch/link.mp4", true, false},         // a link of the archive pointing outside
      {"/altrove/dentro.mp4", true, true},     // written outside, really inside
      {"/arch/../fuori/z.mp4", false, false},  // only looks inside
      {"/archivio2/a.mp4", false, false},      // a prefix is not a folder
      {"/fuori/b.mp4", false, false},
  };
  for (const Caso& c : casi) {
    EXPECT_EQ(dentro_archivio_per_eta(c.file, kRadice, reale), c.per_eta) << c.file;
    EXPECT_EQ(dentro_archivio_per_spazio(c.file, kRadice, reale), c.per_spazio) << c.file;
  }
}

TEST(PuliziaPianoTest, VerdictsByAgeAndCandidatesForSpaceOldestFirst) {
  const RisolviPercorso reale = collegamenti({{"/arch/link.mp4", "/fuori/x.mp4"}});
  const double limite = 1000;
  const std::vector<SegmentoIndice> righe = {
      {1, "/arch/a.mp4", 10},     // old: goes
      {2, "/arch/b.mp4", 20},     // old, file already gone: only its row
      {3, "/fuori/c.mp4", 30},    // old, outside: stays
      {4, "/arch/link.mp4", 40},  // old link inside: goes for age
      {5, "/arch/d.mp4", 1000},   // exactly at the cut-off: stays
      {6, "/arch/e.mp4", 2000},   // new, file gone: only its row
      {7, "/arch/f.mp4", 3000},   // new: stays
  };
  const std::vector<bool> manca = {false, true, false, false, false, true, false};
  const std::vector<Verdetto> v = scegli_per_eta(righe, manca, limite, kRadice, reale);
  EXPECT_EQ(v, (std::vector<Verdetto>{Verdetto::kPerEta, Verdetto::kSoloRiga, Verdetto::kResta,
                                      Verdetto::kPerEta, Verdetto::kResta, Verdetto::kSoloRiga,
                                      Verdetto::kResta}));
  // Outside files never go for space; the rest in the rows' order (by start).
  EXPECT_EQ(candidati_per_spazio(righe, v, kRadice, reale), (std::vector<std::size_t>{4, 6}));
}

// How many deletions the space phase makes, given the reading before and one after each.
TEST(PuliziaPianoTest, SpacePhaseStopsAtTheFloorAfterThreeVainDeletionsOrAFailedReading) {
  using L = std::optional<double>;
  struct Caso {
    const char* nome;
    double min_gb;
    std::vector<L> letture;  // the first before any deletion
    int attese;
  };
  const std::vector<Caso> casi = {
      {"above the floor", 5, {6}, 0},
      {"no floor", 0, {0}, 0},
      {"first reading failed", 5, {std::nullopt}, 0},
      {"freed until the floor", 5, {1, 2, 3, 4, 5, 1}, 4},
      {"three vain in a row", 5, {1, 1, 1, 0.5, 9}, 3},
      {"vain run broken by a gain", 5, {1, 1, 1, 2, 2, 2, 2, 9}, 6},
      {"reading fails midway", 5, {1, 2, std::nullopt, 3}, 2},
  };
  for (const Caso& c : casi) {
    FrenoSpazio freno(c.min_gb, c.letture[0]);
    int fatte = 0;
    for (std::size_t i = 1; freno.altra(); ++i) {
      ++fatte;
      freno.misurato(i < c.letture.size() ? c.letture[i] : std::nullopt);
    }
    EXPECT_EQ(fatte, c.attese) << c.nome;
  }
}

}  // namespace
}  // namespace nvr
