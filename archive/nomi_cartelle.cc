#include "archive/nomi_cartelle.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>

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

std::optional<std::vector<std::string>> nomi_ordinati(const std::string& cartella, bool* assente) {
  if (assente) *assente = false;
  DIR* d = ::opendir(cartella.c_str());
  if (!d) {
    if (errno != ENOENT) return std::nullopt;
    if (assente) *assente = true;
    return std::vector<std::string>{};
  }
  std::vector<std::string> nomi;
  errno = 0;
  while (dirent* e = ::readdir(d)) {
    std::string_view n = e->d_name;
    if (n != "." && n != "..") nomi.emplace_back(n);
    errno = 0;
  }
  const bool letta = errno == 0;
  ::closedir(d);
  if (!letta) return std::nullopt;
  std::sort(nomi.begin(), nomi.end());
  return nomi;
}

}  // namespace nvr
