// Rounding of the figures shown to users.
#pragma once

namespace nvr {

// `x` rounded to `cifre` decimals, exactly as a person reading the decimal expansion of the
// stored binary value would round it: correctly rounded, an exact tie going to the even digit
// (2.675 is stored just below, so it gives 2.67; 0.125 gives 0.12).
double arrotonda(double x, int cifre = 0);

}  // namespace nvr
