#include "core/numeri.h"

#include <gtest/gtest.h>

#include <cmath>

namespace nvr {
namespace {

TEST(ArrotondaTest, TiesGoToEvenOnTheStoredValue) {
  const struct {
    double x;
    int cifre;
    double atteso;
  } casi[] = {
      {1.23456789, 2, 1.23}, {1.234567890, 1, 1.2},  {2.675, 2, 2.67}, {0.125, 2, 0.12},
      {0.375, 2, 0.38},      {12.5, 0, 12.0},        {13.5, 0, 14.0},  {-2.5, 0, -2.0},
      {-0.04, 1, 0.0},       {1234.5678, 0, 1235.0}, {1e-9, 1, 0.0},
  };
  for (const auto& c : casi) EXPECT_EQ(arrotonda(c.x, c.cifre), c.atteso) << c.x;
  EXPECT_FALSE(std::signbit(arrotonda(-0.04, 1)));
}

}  // namespace
}  // namespace nvr
