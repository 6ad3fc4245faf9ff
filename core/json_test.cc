#include "core/json.h"

#include <gtest/gtest.h>

#include <limits>

namespace nvr {
namespace {

TEST(JsonTest, EmptinessFollowsTheUsualTruthRule) {
  for (const char* v : {"null", "false", "0", "0.0", "\"\"", "[]", "{}"})
    EXPECT_TRUE(vuoto(Json::parse(v))) << v;
  for (const char* v : {"true", "1", "-1", "0.5", "\"0\"", "\" \"", "[0]", "{\"a\":null}"})
    EXPECT_FALSE(vuoto(Json::parse(v))) << v;
}

TEST(JsonTest, NumbersAreReadAsAPersonWouldExpect) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  const std::pair<const char*, std::optional<std::int64_t>> casi[] = {
      {"42", 42},          {"-7", -7},        {"12.9", 12},     {"-12.9", -12},
      {"true", 1},         {"\" 45 \"", 45},  {"\"+3\"", 3},     {"1e300", kMax},
      {"18446744073709551615", kMax},        {"\"99999999999999999999\"", kMax},
      {"\"4.5\"", std::nullopt},             {"\"abc\"", std::nullopt},
      {"\"\"", std::nullopt},                {"\"-\"", std::nullopt},
      {"[1]", std::nullopt},                 {"null", std::nullopt},
  };
  for (const auto& [testo, atteso] : casi) EXPECT_EQ(intero(Json::parse(testo)), atteso) << testo;
  EXPECT_EQ(reale(Json("2.5")), 2.5);
  EXPECT_EQ(reale(Json(" 1e3 ")), 1000.0);
  EXPECT_FALSE(reale(Json("0x10")));
  EXPECT_FALSE(reale(Json("12abc")));
  EXPECT_FALSE(reale(Json::object()));
}

// Separators and the two escapings are seen in the stored settings (config_test.cc).
TEST(JsonTest, StoredTextEscapesControlsAndRepairsInvalidUtf8) {
  EXPECT_EQ(testo_json(Json("a\"b\n\x01"), Ascii::kTieni), R"("a\"b\n\u0001")");
  EXPECT_EQ(testo_json(Json("\xff"), Ascii::kTieni), "\"\xEF\xBF\xBD\"");  // invalid UTF-8
  EXPECT_EQ(testo_json(Json::array(), Ascii::kTieni), "[]");
  EXPECT_EQ(testo_di(Json(5)), "5");
  EXPECT_EQ(testo_di(Json(true)), "True");
  EXPECT_EQ(testo_di(Json("x")), "x");
}

}  // namespace
}  // namespace nvr
