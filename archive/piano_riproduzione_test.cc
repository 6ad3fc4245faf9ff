#include "archive/piano_riproduzione.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

SegmentoPiano seg(double inizio, double fine, std::optional<double> durata = std::nullopt) {
  SegmentoPiano s;
  s.riga.inizio = inizio;
  s.riga.fine = fine;
  s.durata = durata;
  return s;
}

TEST(PianoRiproduzioneTest, WallStartTrustsTheEndOnlyNearTheName) {
  struct Caso {
    SegmentoPiano s;
    double atteso;
  };
  const std::vector<Caso> casi = {
      {seg(100, 102.6, 2.0), 100.6},    // name truncated: the real start is later
      {seg(100, 101.8, 2.0), 99.8},     // within 0.25 s before the name
      {seg(100, 101.7, 2.0), 100},      // too early: the name wins
      {seg(100, 103.3, 2.0), 100},      // too late (a file touched after): the name wins
      {seg(100, 103.25, 2.0), 101.25},  // the window's edge
      {seg(100, 102.6), 100},           // track not read yet
  };
  for (const Caso& c : casi) EXPECT_DOUBLE_EQ(avvio(c.s), c.atteso) << c.s.riga.fine;
}

TEST(PianoRiproduzioneTest, SpansRunsAndGaps) {
  // Runs: [0,2)+[2,4.2)+[5.2,6) joined (a 1.0 s gap still joins), then a 1.5 s gap, then
  // [7.2,9) (wall start 7.5), then a long gap to [20,22).
  const std::vector<SegmentoPiano> s = {seg(0, 2), seg(2, 4.2), seg(5.2, 6, 0.6), seg(7.2, 9, 1.5),
                                        seg(20, 22)};
  struct Caso {
    double da, a;
    std::optional<std::size_t> primo, oltre;
    double fine_run;  // fine_predefinita from primo with no day limit
    std::vector<Buco> buchi;
  };
  const std::vector<Caso> casi = {
      {0.5, 30, 0, 5, 6, {{6, 7.5}, {9, 20}}},
      {2, 5.2, 1, 2, 6, {}},          // a start on a boundary belongs to the later segment
      {4.5, 8, 2, 4, 6, {{6, 7.5}}},  // inside the 1.0 s join: the next segment
      {6.5, 8, 3, 4, 9, {}},          // in a gap: the next run
      {9.5, 19.9, {}, {}, 0, {}},     // only gap
      {22, 40, {}, {}, 0, {}},        // after everything
  };
  for (const Caso& c : casi) {
    auto scelta = scegli_segmenti(s, c.da, c.a);
    ASSERT_EQ(scelta.has_value(), c.primo.has_value()) << c.da;
    if (!scelta) continue;
    EXPECT_EQ(scelta->primo, *c.primo) << c.da;
    EXPECT_EQ(scelta->oltre, *c.oltre) << c.da;
    EXPECT_DOUBLE_EQ(fine_predefinita(s, scelta->primo, 1e9), c.fine_run) << c.da;
    EXPECT_EQ(buchi(s, *scelta), c.buchi) << c.da;
  }
}

TEST(PianoRiproduzioneTest, DefaultEndStopsAtTheLocalDayOnClockChanges) {
  const Zona roma = zona_di("Europe/Rome");
  ASSERT_NE(roma, nullptr);
  struct Caso {
    double t;
    double inizio, fine;
  };
  const std::vector<Caso> casi = {
      {1761438600, 1761429600, 1761519600},  // 2025-10-26, 25 hours
      {1743300000, 1743289200, 1743372000},  // 2025-03-30, 23 hours
      {1743289200, 1743289200, 1743372000},  // its midnight itself
  };
  for (const Caso& c : casi) EXPECT_EQ(giorno_di(c.t, roma), std::make_pair(c.inizio, c.fine));
  // A run from 23:59:30 of the long day into the next one ends at local midnight.
  const std::vector<SegmentoPiano> s = {seg(1761519570, 1761519600.5), seg(1761519600, 1761519630)};
  EXPECT_DOUBLE_EQ(fine_predefinita(s, 0, giorno_di(1761519570, roma).second), 1761519600);
}

TEST(PianoRiproduzioneTest, ExportNames) {
  const Zona roma = zona_di("Europe/Rome");
  struct Caso {
    std::string camera;
    double inizio;
    std::string atteso;
  };
  const std::vector<Caso> casi = {
      {"Ingresso", 1749549600.9, "Ingresso_2025-06-10_12-00-00.mp4"},
      {"Cam 1 / \"retro\"", 1749549600, "Cam_1_retro_2025-06-10_12-00-00.mp4"},
      {"Cortile-nord_2", 1749549600, "Cortile-nord_2_2025-06-10_12-00-00.mp4"},
      {"Però", 1749549600, "Per_2025-06-10_12-00-00.mp4"},
      {"../..", 1749549600, "telecamera_2025-06-10_12-00-00.mp4"},
      {"x", 1761438600, "x_2025-10-26_02-30-00.mp4"},  // the repeated hour, first time
      {"x", 1761442200, "x_2025-10-26_02-30-00.mp4"},  // and second time
  };
  for (const Caso& c : casi) EXPECT_EQ(nome_esportazione(c.camera, c.inizio, roma), c.atteso);
}

}  // namespace
}  // namespace nvr
