#include "testing/stand_in.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace nvr::testing {

namespace fs = std::filesystem;

namespace {

std::vector<std::string> righe(const std::string& testo) {
  std::vector<std::string> fuori;
  std::istringstream in(testo);
  for (std::string r; std::getline(in, r);) fuori.push_back(r);
  return fuori;
}

std::optional<std::string> se_esiste(const std::string& percorso) {
  if (!fs::exists(percorso)) return std::nullopt;
  return leggi_file(percorso);
}

}  // namespace

std::string tra_apici(const std::string& s) {
  std::string fuori = "'";
  for (char c : s) fuori += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return fuori + "'";
}

Controfigure::Controfigure() {
  ::chmod(cartella_.percorso().c_str(), 0755);
  const char* p = ::getenv("PATH");
  path_c_era_ = p != nullptr;
  path_prima_ = p ? p : "";
  std::string nuovo = cartella_.percorso() + ":" +
                      (path_c_era_ ? path_prima_ : "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin");
  ::setenv("PATH", nuovo.c_str(), 1);
}

Controfigure::~Controfigure() {
  if (path_c_era_)
    ::setenv("PATH", path_prima_.c_str(), 1);
  else
    ::unsetenv("PATH");
}

void Controfigure::programma(const std::string& nome, const std::string& script) {
  std::string p = cartella_ / nome;
  scrivi_file(p, script);
  if (::chmod(p.c_str(), 0755) != 0) throw std::runtime_error("chmod di " + p);
}

void Controfigure::lsblk_fisso(const std::string& json) {
  scrivi_file(cartella_ / "lsblk.json", json);
  programma("lsblk", "#!/bin/sh\nprintf '%s\\n' \"$*\" >> " + tra_apici(cartella_ / "lsblk.args") +
                         "\ncat " + tra_apici(cartella_ / "lsblk.json") + "\n");
}

std::vector<std::string> Controfigure::chiamate_lsblk() const {
  return righe(leggi_file(cartella_ / "lsblk.args"));
}

void Controfigure::mount_registratore() {
  std::string d = tra_apici(cartella_.percorso());
  programma("mount", R"SH(#!/bin/sh
d=)SH" + d + R"SH(
n=$(( $(cat "$d/mount.n" 2>/dev/null || echo 0) + 1 ))
echo "$n" > "$d/mount.n"
: > "$d/mount.$n"
for a in "$@"; do printf '%s\n' "$a" >> "$d/mount.$n"; done
tipo= prima=
for a in "$@"; do [ "$prima" = "-t" ] && tipo=$a; prima=$a; done
case "$tipo" in
  cifs|nfs) ;;
  *) exec /usr/bin/mount "$@" ;;
esac
for a in "$@"; do
  case "$a" in
    *credentials=*)
      c=${a#*credentials=}; c=${c%%,*}
      cp "$c" "$d/cred.$n" && printf %s "$(stat -c %a "$c")" > "$d/cred.$n.modo" ;;
  esac
done
if [ -f "$d/risposta.$n" ]; then
  tail -n +2 "$d/risposta.$n" >&2
  exit "$(head -n 1 "$d/risposta.$n")"
fi
exit 0
)SH");
  programma("mount.cifs", "#!/bin/sh\nexit 1\n");
  programma("mount.nfs", "#!/bin/sh\nexit 1\n");
}

void Controfigure::rispondi_mount(int n, int codice, const std::string& errore) {
  scrivi_file(cartella_ / ("risposta." + std::to_string(n)),
              std::to_string(codice) + "\n" + errore + "\n");
}

std::vector<std::vector<std::string>> Controfigure::chiamate_mount() const {
  std::vector<std::vector<std::string>> fuori;
  for (int n = 1; fs::exists(cartella_ / ("mount." + std::to_string(n))); ++n)
    fuori.push_back(righe(leggi_file(cartella_ / ("mount." + std::to_string(n)))));
  return fuori;
}

std::optional<std::string> Controfigure::credenziali(int n) const {
  return se_esiste(cartella_ / ("cred." + std::to_string(n)));
}

std::optional<std::string> Controfigure::modo_credenziali(int n) const {
  return se_esiste(cartella_ / ("cred." + std::to_string(n) + ".modo"));
}

}  // namespace nvr::testing
