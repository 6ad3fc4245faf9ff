#include "engine/anteprime_piano.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

constexpr double T = 1'700'000'000.0;

TEST(AnteprimePianoTest, HygieneDeletesDeadPicturesStaleLeftoversThenOldestOverTheCap) {
  struct Caso {
    const char* nome;
    std::vector<VoceCache> voci;
    std::set<std::int64_t> vivi;
    std::uint64_t massimo;
    std::vector<std::string> via;
  };
  const std::vector<Caso> casi = {
      {"empty cache", {}, {1}, 100, {}},
      {"all alive, under the cap",
       {{"1_0.jpg", 40, T - 10}, {"2_2000.jpg", 40, T - 5}},
       {1, 2},
       100,
       {}},
      {"segment gone from the index",
       {{"1_0.jpg", 40, T - 10}, {"2_2000.jpg", 40, T - 5}},
       {2},
       100,
       {"1_0.jpg"}},
      {"index empty: every picture goes",
       {{"1_0.jpg", 40, T}, {"1_4000.jpg", 40, T}},
       {},
       100,
       {"1_0.jpg", "1_4000.jpg"}},
      {"a leftover temporary is kept while a maker may still be writing it",
       {{".1_0.123.jpg", 10, T - 5}, {".1_0.124.jpg", 10, T - 500}, {"nota.txt", 1, T - 500}},
       {1},
       100,
       {".1_0.124.jpg", "nota.txt"}},
      {"names that only look like pictures",
       {{"_0.jpg", 1, T - 500},
        {"1_.jpg", 1, T - 500},
        {"1_2.png", 1, T - 500},
        {"-1_0.jpg", 1, T - 500}},
       {1},
       100,
       {"_0.jpg", "1_.jpg", "1_2.png", "-1_0.jpg"}},
      {"over the cap: oldest first, until it fits",
       {{"3_0.jpg", 40, T - 1}, {"1_0.jpg", 40, T - 30}, {"2_0.jpg", 40, T - 20}},
       {1, 2, 3},
       90,
       {"1_0.jpg"}},
      {"same age: by name",
       {{"2_0.jpg", 40, T}, {"1_0.jpg", 40, T}, {"3_0.jpg", 40, T}},
       {1, 2, 3},
       40,
       {"1_0.jpg", "2_0.jpg"}},
      {"dead pictures count nothing toward the cap",
       {{"1_0.jpg", 60, T - 30}, {"2_0.jpg", 60, T - 20}, {"3_0.jpg", 60, T - 10}},
       {2, 3},
       120,
       {"1_0.jpg"}},
      {"exactly at the cap stays", {{"1_0.jpg", 64, T - 30}}, {1}, 64, {}},
  };
  for (const Caso& c : casi) EXPECT_EQ(da_togliere(c.voci, c.vivi, c.massimo, T), c.via) << c.nome;
}

TEST(AnteprimePianoTest, SegmentForAMoment) {
  auto seg = [](std::int64_t id, double inizio, double fine) {
    SegmentoElencato s;
    s.id = id;
    s.inizio = inizio;
    s.fine = fine;
    return s;
  };
  // Two touching segments (the second's truncated name overlaps the first), then a gap.
  const std::vector<SegmentoElencato> s = {seg(1, T, T + 2.4), seg(2, T + 2, T + 4.3),
                                           seg(3, T + 200, T + 202)};
  const struct {
    double t;
    std::optional<std::size_t> atteso;
  } casi[] = {
      {T + 1, 0},        {T + 2.2, 1},
      {T + 4.3, 1},      {T + 30, 1},
      {T - 59, 0},       {T - 61, std::nullopt},
      {T + 140, 2},      {T + 100, std::nullopt},
      {T + 202 + 60, 2}, {T + 202 + 60.5, std::nullopt},
  };
  for (const auto& c : casi) EXPECT_EQ(segmento_per(s, c.t), c.atteso) << c.t - T;
  EXPECT_EQ(segmento_per({}, T), std::nullopt);
}

}  // namespace
}  // namespace nvr
