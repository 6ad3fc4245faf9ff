#include "web/parametri.h"

#include <cmath>
#include <cstdlib>

namespace nvr {

std::optional<CamId> telecamera_da_testo(const std::string& testo) {
  if (testo.empty() || testo.size() > 18 ||
      testo.find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  const CamId id = std::stoll(testo);
  if (id <= 0) return std::nullopt;
  return id;
}

std::optional<double> secondi_da_testo(const std::string& testo) {
  constexpr double kLimite = 1e11;
  if (testo.empty() || testo.find_first_not_of("0123456789.+-eE") != std::string::npos)
    return std::nullopt;
  char* fine = nullptr;
  const double v = std::strtod(testo.c_str(), &fine);
  if (fine != testo.c_str() + testo.size() || !std::isfinite(v) || std::fabs(v) > kLimite)
    return std::nullopt;
  return v;
}

}  // namespace nvr
