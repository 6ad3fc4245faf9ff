#include "archive/senza_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <future>
#include <map>
#include <string>
#include <string_view>
#include <system_error>

#include "archive/nomi_cartelle.h"
#include "archive/sommari.h"
#include "core/condiviso.h"
#include "core/db.h"
#include "core/tempo.h"
#include "storage/con_timeout.h"

namespace nvr {

namespace {

// What the last look at a folder found, valid while its times and identity (`firma_cartella`)
// and the names indexed in it (`firma_righe`) stay the same.
struct Visto {
  std::string firma_cartella;
  std::uint64_t firma_righe = 0;
  std::int64_t mancanti = 0;
};
Condiviso<std::map<std::string, Visto>> _visto;

// A folder's times change with every name added, removed or renamed in it.
std::string firma_di(const struct stat& st) {
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" +
         std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + ":" +
         std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec);
}

double in_secondi(const timespec& t) { return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9; }

// What the disk says of one folder; the part of the work that may hang on a dead share.
struct Sguardo {
  enum { kIlleggibile, kAssente, kComePrima, kElencata } esito = kIlleggibile;
  std::string firma;
  double cambiata = 0;
  std::vector<std::string> nomi;  // sorted, for kElencata
};

Sguardo guarda(const std::string& cartella, const std::optional<Visto>& prima,
               std::uint64_t firma_righe, Servono cosa) {
  Sguardo s;
  struct stat st;
  if (::stat(cartella.c_str(), &st) != 0) {
    if (errno == ENOENT) s.esito = Sguardo::kAssente;
    return s;
  }
  s.firma = firma_di(st);
  s.cambiata = std::max(in_secondi(st.st_mtim), in_secondi(st.st_ctim));
  if (prima && prima->firma_cartella == s.firma && prima->firma_righe == firma_righe &&
      (cosa == Servono::kConteggio || prima->mancanti == 0)) {
    s.esito = Sguardo::kComePrima;
    return s;
  }
  // Its times are read before its names: a change in between makes the next look list again.
  bool assente = false;
  std::optional<std::vector<std::string>> nomi = nomi_ordinati(cartella, &assente);
  if (assente) s.esito = Sguardo::kAssente;
  if (!nomi || assente) return s;
  s.nomi = std::move(*nomi);
  s.esito = Sguardo::kElencata;
  return s;
}

struct RigaIndicizzata {
  std::int64_t id;
  std::string nome;
};

// The rows whose file lies in `cartella`: a range on the index of file paths, then the exact
// folder, since the range also holds subfolders and doubled slashes.
std::vector<RigaIndicizzata> righe_in(Connessione& c, const std::string& cartella) {
  std::string da = cartella.back() == '/' ? cartella : cartella + "/";
  std::string a = da;
  a.back() = '/' + 1;
  std::vector<RigaIndicizzata> righe;
  c.scorri("SELECT id, file FROM nvr_registrazioni WHERE file >= ? AND file < ?", {da, a},
           [&](const Riga& r) {
             const std::string* file = std::get_if<std::string>(&r[1]);
             if (!file) return;
             const auto [dentro, nome] = cartella_e_nome(*file);
             if (dentro == cartella) righe.push_back({come_intero(r[0]), std::string(nome)});
           });
  return righe;
}

}  // namespace

void dimentica_cartelle_per_test() { _visto.set({}); }

std::optional<SenzaFile> senza_file_per_cartelle(Servono cosa, double margine) {
  std::optional<std::vector<CartellaIndicizzata>> cartelle = cartelle_indicizzate(_fuso());
  if (!cartelle) return std::nullopt;
  // A path without a leading "/" (or a file that is no text) has no range of the index.
  for (const CartellaIndicizzata& g : *cartelle)
    if (g.cartella.empty() || g.cartella[0] != '/') return std::nullopt;

  const std::map<std::string, Visto> ricordo = _visto.get();
  std::map<std::string, Visto> nuovo;
  SenzaFile fuori;
  auto prima_di = [&ricordo](const std::string& cartella) -> std::optional<Visto> {
    if (auto it = ricordo.find(cartella); it != ricordo.end()) return it->second;
    return std::nullopt;
  };
  // The next folder is listed while the rows of this one are read from the index: the disk and
  // the database each wait for the other otherwise. Each look keeps its own time limit, so
  // waiting for its answer is bounded. A count (the overview's, at every poll) mostly finds
  // folders as they were, with no rows to read: there a thread more per folder costs more than
  // it overlaps, and each folder is looked at in turn.
  auto guarda_presto = [&](const CartellaIndicizzata& g) -> std::future<Esito<Sguardo>> {
    auto corpo = [cartella = g.cartella, prima = prima_di(g.cartella), f = g.firma, cosa] {
      return _con_timeout([cartella, prima, f, cosa] { return guarda(cartella, prima, f, cosa); },
                          5);
    };
    if (cosa == Servono::kId) {
      try {
        return std::async(std::launch::async, corpo);
      } catch (const std::system_error&) {
        // no thread to spare: look now, on this one
      }
    }
    std::promise<Esito<Sguardo>> subito;
    subito.set_value(corpo());
    return subito.get_future();
  };
  Connessione c = _db();
  std::future<Esito<Sguardo>> prossimo;
  if (!cartelle->empty()) prossimo = guarda_presto(cartelle->front());
  for (std::size_t i = 0; i < cartelle->size(); ++i) {
    const CartellaIndicizzata& g = (*cartelle)[i];
    const std::optional<Visto> prima = prima_di(g.cartella);
    Esito<Sguardo> sguardo = prossimo.get();
    if (i + 1 < cartelle->size()) prossimo = guarda_presto((*cartelle)[i + 1]);
    if (!sguardo.ok()) continue;  // too slow: nothing is concluded about its files
    const Sguardo& s = sguardo.valore();
    if (s.esito == Sguardo::kIlleggibile) continue;
    if (s.esito == Sguardo::kComePrima) {
      fuori.n += prima->mancanti;
      nuovo[g.cartella] = *prima;
      continue;
    }
    if (s.esito == Sguardo::kAssente && cosa == Servono::kConteggio) {
      fuori.n += g.n;
      continue;
    }
    std::uint64_t firma_righe = 0;
    std::int64_t mancanti = 0;
    for (const RigaIndicizzata& r : righe_in(c, g.cartella)) {
      firma_righe += impronta(r.nome);
      if (s.esito == Sguardo::kAssente ||
          !std::binary_search(s.nomi.begin(), s.nomi.end(), r.nome)) {
        ++mancanti;
        if (cosa == Servono::kId) fuori.id.push_back(r.id);
      }
    }
    fuori.n += mancanti;
    if (s.esito == Sguardo::kElencata && _ora() - s.cambiata >= margine)
      nuovo[g.cartella] = Visto{s.firma, firma_righe, mancanti};
  }
  _visto.set(std::move(nuovo));
  std::sort(fuori.id.begin(), fuori.id.end());
  return fuori;
}

}  // namespace nvr
