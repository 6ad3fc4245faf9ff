#include "core/nomi.h"

namespace nvr {

namespace {

bool ammesso(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

// The blanks that a trim removes, as for any text coming from a form.
bool bianco(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

std::string _nome_sicuro(const std::string& s) {
  std::size_t a = 0, b = s.size();
  while (a < b && bianco(s[a])) ++a;
  while (b > a && bianco(s[b - 1])) --b;

  std::string fuori;
  bool in_corsa = false;
  for (std::size_t i = a; i < b; ++i) {
    if (ammesso(s[i])) {
      fuori.push_back(s[i]);
      in_corsa = false;
    } else if (!in_corsa) {
      fuori.push_back('_');
      in_corsa = true;
    }
  }
  auto togliere = [](char c) { return c == '.' || c == '_'; };
  std::size_t x = 0, y = fuori.size();
  while (x < y && togliere(fuori[x])) ++x;
  while (y > x && togliere(fuori[y - 1])) --y;
  fuori = fuori.substr(x, y - x);
  return fuori.empty() ? "unita" : fuori;
}

}  // namespace nvr
