#include "core/testi.h"

#include <algorithm>
#include <cstdint>

namespace nvr {

namespace {

std::string spoglia_di(std::string_view s, std::string_view bianchi) {
  auto a = s.find_first_not_of(bianchi);
  if (a == std::string_view::npos) return "";
  return std::string(s.substr(a, s.find_last_not_of(bianchi) - a + 1));
}

}  // namespace

std::string spoglia(std::string_view s) { return spoglia_di(s, " \t\n\r\f\v"); }

std::string spoglia_spazi_e_tab(std::string_view s) { return spoglia_di(s, " \t"); }

std::string spoglia_spazi_e_righe(std::string_view s) { return spoglia_di(s, " \t\r\n"); }

std::string minuscolo(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

bool schema_flusso_valido(const std::string& url) {
  const std::string m = minuscolo(url);
  for (const char* schema : {"rtsp://", "rtsps://", "http://", "https://"})
    if (m.starts_with(schema)) return true;
  return false;
}

std::string base64(std::string_view dati) {
  static constexpr char kAlfabeto[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string uscita;
  uscita.reserve((dati.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < dati.size(); i += 3) {
    const std::size_t resto = std::min<std::size_t>(3, dati.size() - i);
    std::uint32_t gruppo = 0;
    for (std::size_t k = 0; k < 3; ++k)
      gruppo = (gruppo << 8) | (k < resto ? static_cast<unsigned char>(dati[i + k]) : 0u);
    for (std::size_t k = 0; k < 4; ++k)
      uscita.push_back(k <= resto ? kAlfabeto[(gruppo >> (18 - 6 * k)) & 0x3f] : '=');
  }
  return uscita;
}

}  // namespace nvr
