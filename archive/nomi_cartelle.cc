#include "archive/nomi_cartelle.h"

namespace nvr {

std::pair<std::string_view, std::string_view> cartella_e_nome(std::string_view p) {
  auto i = p.rfind('/');
  if (i == std::string_view::npos) return {"", p};
  std::string_view cartella = p.substr(0, i + 1);
  auto fine = cartella.find_last_not_of('/');
  cartella = fine == std::string_view::npos ? cartella : cartella.substr(0, fine + 1);
  return {cartella, p.substr(i + 1)};
}

std::uint64_t impronta(std::string_view s) {
  std::uint64_t h = 0xcbf29ce484222325ULL;
  for (unsigned char ch : s) {
    h ^= ch;
    h *= 0x100000001b3ULL;
  }
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  return h;
}

}  // namespace nvr
