#include "core/log.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace nvr {

void _log(std::string_view msg) {
  static std::mutex uscita;
  std::string riga;
  riga.reserve(msg.size() + 7);
  riga.append("[NVR] ").append(msg).push_back('\n');
  std::lock_guard l(uscita);
  std::fwrite(riga.data(), 1, riga.size(), stdout);
  std::fflush(stdout);
}

}  // namespace nvr
