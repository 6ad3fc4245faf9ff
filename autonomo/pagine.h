// The web pages compiled into the program, served without login.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace nvr::autonomo {

struct Pagina {
  std::string_view nome;  // the file name, no folders
  std::string_view dati;  // the file's bytes
};

// Every file of the page folder at build time, sorted by name (generated source).
std::span<const Pagina> pagine_incorporate();

// The page served at URL path `percorso`: "/" is index.html, "/<name>" a file of the folder.
// Absent for anything else (sub-paths, unknown names).
std::optional<Pagina> pagina_per(std::string_view percorso);

// The Content-Type of a file by its extension; application/octet-stream when unknown.
std::string tipo_di(std::string_view nome);

}  // namespace nvr::autonomo
