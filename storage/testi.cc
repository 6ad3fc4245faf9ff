#include "storage/testi.h"

namespace nvr {

std::string spoglia(const std::string& s) {
  const char* bianchi = " \t\n\r\f\v";
  auto a = s.find_first_not_of(bianchi);
  if (a == std::string::npos) return "";
  return s.substr(a, s.find_last_not_of(bianchi) - a + 1);
}

std::string minuscolo(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

std::string detto(const RisultatoComando& r, const std::string& ripiego) {
  if (!spoglia(r.err).empty()) return r.err;
  if (!spoglia(r.out).empty()) return r.out;
  return ripiego;
}

}  // namespace nvr
