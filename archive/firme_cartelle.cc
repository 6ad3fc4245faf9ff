#include "archive/firme_cartelle.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "archive/nomi_cartelle.h"
#include "core/db.h"
#include "storage/con_timeout.h"

namespace nvr {

namespace {

// Within this many seconds of a folder's change, its times may not move for the next name.
constexpr double MARGINE = 3;

double secondi(const timespec& t) { return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9; }

std::string firma(const struct stat& st, double ora) {
  if (ora - std::max(secondi(st.st_mtim), secondi(st.st_ctim)) < MARGINE) return "";
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" +
         std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + ":" +
         std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec);
}

// The sub-folders of `cartella`, skipping "." and "..": absent when it cannot be listed.
std::optional<std::vector<std::string>> sottocartelle(const std::string& cartella) {
  DIR* d = ::opendir(cartella.c_str());
  if (!d) return std::nullopt;
  std::vector<std::string> v;
  while (dirent* e = ::readdir(d)) {
    std::string n = e->d_name;
    if (n == "." || n == "..") continue;
    if (e->d_type == DT_DIR || e->d_type == DT_LNK || e->d_type == DT_UNKNOWN)
      v.push_back(cartella + "/" + n);
  }
  ::closedir(d);
  return v;
}

// Adds `cartella` when it is a folder; answers whether it is one.
bool annota(const std::string& cartella, double ora, FirmeCartelle& firme) {
  struct stat st {};
  if (::stat(cartella.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  firme[cartella] = firma(st, ora);
  return true;
}

}  // namespace

std::optional<FirmeCartelle> firme_archivio(const std::string& radice, double ora) {
  FirmeCartelle firme;
  std::string r = radice;
  while (r.size() > 1 && r.back() == '/') r.pop_back();
  if (!annota(r, ora, firme)) return std::nullopt;
  auto primo = sottocartelle(r);
  if (!primo) return std::nullopt;
  for (const std::string& c : *primo) {
    if (!annota(c, ora, firme)) continue;
    for (const std::string& s : sottocartelle(c).value_or(std::vector<std::string>{}))
      annota(s, ora, firme);
  }
  return firme;
}

std::vector<std::string> cartelle_cambiate(const FirmeCartelle& prima, const FirmeCartelle& dopo) {
  std::vector<std::string> v;
  for (const auto& [c, f] : dopo) {
    auto it = prima.find(c);
    if (it == prima.end() || f.empty() || it->second != f) v.push_back(c);
  }
  for (const auto& [c, f] : prima)
    if (!dopo.count(c)) v.push_back(c);
  return v;
}

bool righe_senza_file_in(const std::vector<std::string>& cartelle) {
  for (const std::string& cartella : cartelle) {
    const std::string da = cartella + "/";
    std::string a = da;
    a.back() = '/' + 1;
    std::vector<std::string> righe;
    {
      Connessione c = _db();
      c.scorri("SELECT file FROM nvr_registrazioni WHERE file >= ? AND file < ?", {da, a},
               [&](const Riga& r) {
                 std::string f = come_testo(r[0]);
                 if (f.find('/', da.size()) == std::string::npos)
                   righe.push_back(f.substr(da.size()));
               });
    }
    if (righe.empty()) continue;
    auto elenco = _con_timeout([cartella] { return nomi_ordinati(cartella); }, 5);
    if (!elenco.ok() || !elenco.valore()) continue;  // nothing concluded about its files
    const std::vector<std::string>& nomi = *elenco.valore();
    for (const std::string& n : righe)
      if (!std::binary_search(nomi.begin(), nomi.end(), n)) return true;
  }
  return false;
}

}  // namespace nvr
