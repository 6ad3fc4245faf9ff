#include "autonomo/pagine.h"

#include <array>
#include <utility>

namespace nvr::autonomo {

std::optional<Pagina> pagina_per(std::string_view percorso) {
  if (percorso == "/") percorso = "/index.html";
  if (!percorso.starts_with('/')) return std::nullopt;
  percorso.remove_prefix(1);
  for (const Pagina& p : pagine_incorporate())
    if (p.nome == percorso) return p;
  return std::nullopt;
}

std::string tipo_di(std::string_view nome) {
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 6> tipi = {{
      {".html", "text/html; charset=utf-8"},
      {".css", "text/css"},
      {".js", "application/javascript"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".ico", "image/x-icon"},
  }};
  for (const auto& [estensione, tipo] : tipi)
    if (nome.ends_with(estensione)) return std::string(tipo);
  return "application/octet-stream";
}

}  // namespace nvr::autonomo
