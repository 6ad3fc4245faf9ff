#include "core/percorsi.h"

#include <filesystem>
#include <system_error>

namespace nvr {

namespace fs = std::filesystem;

std::string percorso_reale_o_assoluto(const std::string& p) {
  std::error_code ec;
  fs::path a = fs::absolute(p, ec);
  if (ec) return p;
  fs::path r = fs::weakly_canonical(a, ec);
  return ec ? a.string() : r.string();
}

std::string percorso_reale_o_normale(const std::string& p) {
  std::error_code ec;
  fs::path r = fs::weakly_canonical(p, ec);
  return ec ? fs::path(p).lexically_normal().string() : r.string();
}

std::string percorso_reale_o_scritto(const std::string& p) {
  std::error_code ec;
  fs::path q = fs::weakly_canonical(fs::absolute(p, ec), ec);
  return ec ? p : q.string();
}

std::string percorso_reale_o_vuoto(const std::string& p) {
  if (p.empty()) return "";
  std::error_code ec;
  fs::path a = fs::absolute(p, ec);
  if (ec) return "";
  fs::path r = fs::weakly_canonical(a, ec);
  if (ec) return "";
  return senza_barra_finale(r.string());
}

std::string senza_barra_finale(std::string p) {
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

bool dentro_cartella(const std::string& p, const std::string& radice) {
  std::string r = radice;
  while (!r.empty() && r.back() == '/') r.pop_back();
  return p == radice || p == r || p.starts_with(r + "/");
}

}  // namespace nvr
