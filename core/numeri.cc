#include "core/numeri.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace nvr {

double arrotonda(double x, int cifre) {
  if (!std::isfinite(x)) return x;
  // printf renders the exact binary value and rounds ties to even, which is the rule we want.
  char buf[512];
  std::snprintf(buf, sizeof buf, "%.*f", cifre, x);
  double r = std::strtod(buf, nullptr);
  return r == 0.0 ? 0.0 : r;  // no "-0.0" in answers
}

}  // namespace nvr
