// The two segment name forms and the start times they carry.
#include <algorithm>
#include <charconv>
#include <string_view>

#include "archive/indice.h"

namespace nvr {

namespace {

// The name patterns are matched by hand: they are fixed-width, and the standard regex engine
// costs more than the whole check.
bool solo_cifre(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "YYYYmmdd_HHMMSS.mp4", the recorder's name.
bool nome_in_corso(std::string_view n) {
  return n.size() == 19 && solo_cifre(n.substr(0, 8)) && n[8] == '_' &&
         solo_cifre(n.substr(9, 6)) && n.substr(15) == ".mp4";
}

// "HH-MM-SS.mp4" or "HH-MM-SS_N.mp4".
bool nome_archiviato(std::string_view n) {
  if (n.size() < 12 || !n.ends_with(".mp4")) return false;
  if (!solo_cifre(n.substr(0, 2)) || n[2] != '-' || !solo_cifre(n.substr(3, 2)) || n[5] != '-' ||
      !solo_cifre(n.substr(6, 2)))
    return false;
  std::string_view resto = n.substr(8, n.size() - 12);
  return resto.empty() || (resto[0] == '_' && solo_cifre(resto.substr(1)));
}

int cifre(const std::string& s, std::size_t da, std::size_t n) {
  int v = 0;
  std::from_chars(s.data() + da, s.data() + da + n, v);
  return v;
}

// Local wall-clock fields of a day ("YYYY-MM-DD") and a time, if both are real.
std::optional<std::tm> data_ora(const std::string& giorno, int ora, int minuti, int secondi) {
  std::optional<std::tm> t = leggi_giorno(giorno);
  if (!t || ora > 23 || minuti > 59 || secondi > 59) return std::nullopt;
  t->tm_hour = ora;
  t->tm_min = minuti;
  t->tm_sec = secondi;
  return t;
}

}  // namespace

bool _nome_giorno(std::string_view n) {
  return n.size() == 10 && solo_cifre(n.substr(0, 4)) && n[4] == '-' &&
         solo_cifre(n.substr(5, 2)) && n[7] == '-' && solo_cifre(n.substr(8, 2));
}

std::optional<double> _inizio_in_corso(const std::string& nome) {
  if (!nome_in_corso(nome)) return std::nullopt;
  std::string giorno = nome.substr(0, 4) + "-" + nome.substr(4, 2) + "-" + nome.substr(6, 2);
  std::optional<std::tm> t =
      data_ora(giorno, cifre(nome, 9, 2), cifre(nome, 11, 2), cifre(nome, 13, 2));
  if (!t) return std::nullopt;
  return epoch_di(*t, nullptr);
}

std::optional<double> _inizio_archiviato(const std::string& giorno, const std::string& nome,
                                         Zona z) {
  if (!_nome_giorno(giorno) || !nome_archiviato(nome)) return std::nullopt;
  std::optional<std::tm> t =
      data_ora(giorno, cifre(nome, 0, 2), cifre(nome, 3, 2), cifre(nome, 6, 2));
  if (!t) return std::nullopt;
  return epoch_di(*t, z);
}

}  // namespace nvr
