#include "engine/anteprime_piano.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

constexpr double T = 1'700'000'000.0;

TEST(AnteprimePianoTest, HygieneDeletesDeadPicturesStaleLeftoversThenOldestOverTheCap) {
  const struct {
    const char* nome;
    std::vector<VoceCache> voci;  // name, bytes, made this many seconds before T
    std::set<std::int64_t> vivi;
    std::uint64_t massimo;
    std::vector<std::string> via;
  } casi[] = {
      // clang-format off
      {"all alive, under the cap", {{"1_0.jpg", 40, 10}, {"2_2000.jpg", 40, 5}}, {1, 2}, 100, {}},
      {"segment gone from the index", {{"1_0.jpg", 40, 10}, {"2_20.jpg", 40, 5}}, {2}, 100,
       {"1_0.jpg"}},
      {"a temporary file stays while a maker may still write it",
       {{".1_0.1.jpg", 10, 5}, {".1_0.2.jpg", 10, 500}, {"nota.txt", 1, 500}}, {1}, 100,
       {".1_0.2.jpg", "nota.txt"}},
      {"names that only look like pictures",
       {{"_0.jpg", 1, 500}, {"1_.jpg", 1, 500}, {"1_2.png", 1, 500}, {"-1_0.jpg", 1, 500}}, {1},
       100, {"_0.jpg", "1_.jpg", "1_2.png", "-1_0.jpg"}},
      {"over the cap: oldest first, until it fits",
       {{"3_0.jpg", 40, 1}, {"1_0.jpg", 40, 30}, {"2_0.jpg", 40, 20}}, {1, 2, 3}, 90, {"1_0.jpg"}},
      {"same age: by name", {{"2_0.jpg", 40, 0}, {"1_0.jpg", 40, 0}, {"3_0.jpg", 40, 0}},
       {1, 2, 3}, 40, {"1_0.jpg", "2_0.jpg"}},
      {"dead pictures count nothing toward the cap",
       {{"1_0.jpg", 60, 30}, {"2_0.jpg", 60, 20}, {"3_0.jpg", 60, 10}}, {2, 3}, 120, {"1_0.jpg"}},
      // clang-format on
  };
  for (auto c : casi) {
    for (VoceCache& v : c.voci) v.mtime = T - v.mtime;
    EXPECT_EQ(da_togliere(c.voci, c.vivi, c.massimo, T), c.via) << c.nome;
  }
}

TEST(AnteprimePianoTest, SegmentForAMoment) {
  // Two touching segments (the second's truncated name overlaps the first), then a gap.
  std::vector<SegmentoElencato> s(3);
  s[0].inizio = T, s[0].fine = T + 2.4, s[1].inizio = T + 2, s[1].fine = T + 4.3;
  s[2].inizio = T + 200, s[2].fine = T + 202;
  // clang-format off
  const std::pair<double, std::optional<std::size_t>> casi[] = {
      {1, 0}, {2.2, 1}, {30, 1}, {-59, 0}, {-61, std::nullopt}, {140, 2}, {100, std::nullopt},
      {262, 2}, {262.5, std::nullopt}};
  // clang-format on
  for (const auto& [t, atteso] : casi) EXPECT_EQ(segmento_per(s, T + t), atteso) << t;
}

}  // namespace
}  // namespace nvr
