// One table for every benchmark: each program prints its rows in the same columns, and
// scripts/bench.sh prints the header once above them all.
#pragma once

#include <cmath>
#include <cstdio>
#include <string>

namespace nvr::bench {

// scripts/bench.sh prints the header in these same columns.
inline constexpr const char* kFormatoRiga = "%-14s %-44s %12s %12s %9s %-8s %s\n";

// One row: the figure measured on nvr, the baseline measured in the same run (NaN when the row
// has none: the ratio is then left blank) and the target it is held to ("" when none).
inline void riga(const std::string& prova, const std::string& misura, double nvr, double base,
                 const std::string& unita, const std::string& obiettivo = "") {
  auto cifra = [](double v) {
    char b[32];
    if (std::isnan(v)) return std::string("-");
    std::snprintf(b, sizeof(b), std::fabs(v) >= 100 || v == std::floor(v) ? "%.0f" : "%.3f", v);
    return std::string(b);
  };
  std::string rapporto = std::isnan(base) || base == 0 ? "-" : cifra(nvr / base);
  std::printf(kFormatoRiga, prova.c_str(), misura.c_str(), cifra(nvr).c_str(), cifra(base).c_str(),
              rapporto.c_str(), unita.c_str(), obiettivo.c_str());
  std::fflush(stdout);
}

inline constexpr double kNessuna = NAN;

}  // namespace nvr::bench
