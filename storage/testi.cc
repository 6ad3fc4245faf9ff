#include "storage/testi.h"

namespace nvr {

std::string detto(const RisultatoComando& r, const std::string& ripiego) {
  if (!spoglia(r.err).empty()) return r.err;
  if (!spoglia(r.out).empty()) return r.out;
  return ripiego;
}

}  // namespace nvr
