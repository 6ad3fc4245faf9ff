#include "archive/allineamento.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "archive/nomi_cartelle.h"
#include "archive/senza_file.h"
#include "core/condiviso.h"
#include "core/db.h"
#include "core/tempo.h"
#include "storage/con_timeout.h"
#include "storage/montaggi.h"

namespace nvr {

namespace {
// Whether the archive is present, the configuration signature it was worked out for, and when
// (replaced whole; a race only repeats the look).
struct CachePresente {
  double ts = 0.0;
  bool val = false;
  std::string firma;
};
Condiviso<CachePresente> _cache_presente;

// What the archive overview last learned of one folder: how many of the rows indexed in it had
// no file. It holds while the folder looks the same from outside (`firma_cartella`: identity,
// modification and change times) and the names indexed in it are the same (`firma_righe`).
struct MancantiCartella {
  std::string firma_cartella;
  std::uint64_t firma_righe = 0;
  std::int64_t mancanti = 0;
};
Condiviso<std::map<std::string, MancantiCartella>> _mancanti_per_cartella;
}  // namespace

void azzera_allineamento_per_test() {
  _cache_presente.set({});
  _mancanti_per_cartella.set({});
  dimentica_cartelle_per_test();
}

namespace fs = std::filesystem;

// The paths of an index come folder by folder, so the previous path's folder is tried before
// the map of folders.
std::vector<bool> mancanti_per_posizione(const std::vector<std::string>& percorsi) {
  std::vector<std::pair<std::string, std::vector<std::size_t>>> gruppi;
  std::map<std::string, std::size_t, std::less<>> posizione;
  std::size_t ultimo = 0;
  for (std::size_t i = 0; i < percorsi.size(); ++i) {
    const std::string_view cartella = cartella_e_nome(percorsi[i]).first;
    if (gruppi.empty() || gruppi[ultimo].first != cartella) {
      auto it = posizione.find(cartella);
      if (it == posizione.end()) {
        it = posizione.emplace(std::string(cartella), gruppi.size()).first;
        gruppi.emplace_back(std::string(cartella), std::vector<std::size_t>{});
      }
      ultimo = it->second;
    }
    gruppi[ultimo].second.push_back(i);
  }

  std::vector<bool> manca(percorsi.size(), false);
  for (const auto& [cartella, indici] : gruppi) {
    auto elenco = _con_timeout([c = cartella] { return nomi_ordinati(c); }, 5);
    // A folder that cannot be read, or answers too slowly, says nothing about its files.
    if (!elenco.ok() || !elenco.valore()) continue;
    const std::vector<std::string>& nomi = *elenco.valore();
    for (std::size_t i : indici) {
      const std::string_view nome = cartella_e_nome(percorsi[i]).second;
      manca[i] = !std::binary_search(nomi.begin(), nomi.end(), nome, std::less<>());
    }
  }
  return manca;
}

namespace {

bool presente_ora(const std::string& cartella, const Json& dest) {
  if (cartella.empty()) return false;
  auto e_cartella = [&cartella] {
    auto r = _con_timeout(
        [cartella] {
          std::error_code ec;
          return fs::is_directory(cartella, ec);
        },
        3);
    return r.ok() && r.valore();
  };
  std::string tipo = testo_o_vuoto(campo(dest, "tipo"));
  if (tipo == "usb" || tipo == "rete") {
    const Json& mp = campo(dest, "mountpoint");
    std::string punto = mp.is_string() ? mp.get<std::string>() : "";
    return !punto.empty() && _ismount(punto) && _mount_vivo(dest, punto) && e_cartella();
  }
  return e_cartella();
}

}  // namespace

std::set<std::string> _mancanti(const std::vector<std::string>& percorsi) {
  std::vector<bool> manca = mancanti_per_posizione(percorsi);
  std::set<std::string> fuori;
  for (std::size_t i = 0; i < percorsi.size(); ++i)
    if (manca[i]) fuori.insert(percorsi[i]);
  return fuori;
}

bool _archivio_presente(const Config& cfg, double fresco) {
  const Json& dest = cfg.destinazione;
  std::string firma = cfg.cartella + "|" + testo_o_vuoto(campo(dest, "tipo")) + "|" +
                      testo_o_vuoto(campo(dest, "mountpoint"));
  CachePresente c = _cache_presente.get();
  if (c.firma == firma && _ora() - c.ts < fresco) return c.val;
  bool val = presente_ora(cfg.cartella, dest);
  _cache_presente.set(CachePresente{_ora(), val, firma});
  return val;
}

std::vector<std::int64_t> _righe_senza_file(const Config& cfg) {
  if (!_archivio_presente(cfg)) return {};
  if (std::optional<SenzaFile> r = senza_file_per_cartelle(Servono::kId, 3)) return r->id;
  std::vector<std::int64_t> id;
  std::vector<std::string> file;
  {
    Connessione c = _db();
    c.scorri("SELECT id, file FROM nvr_registrazioni", {}, [&](const Riga& r) {
      id.push_back(come_intero(r[0]));
      file.push_back(come_testo(r[1]));
    });
  }
  std::vector<bool> manca = mancanti_per_posizione(file);
  std::vector<std::int64_t> ids;
  for (std::size_t i = 0; i < id.size(); ++i)
    if (manca[i]) ids.push_back(id[i]);
  return ids;
}

namespace {

// The names indexed in one folder, packed: over millions of rows one string per name would
// weigh more than the index itself.
struct NomiIndicizzati {
  std::string cartella;
  std::string nomi;                 // one after the other
  std::vector<std::uint32_t> fine;  // where each name ends in `nomi`
  std::uint64_t firma = 0;

  void aggiungi(std::string_view nome) {
    nomi.append(nome);
    fine.push_back(static_cast<std::uint32_t>(nomi.size()));
    firma += impronta(nome);
  }
  std::string_view nome(std::size_t i) const {
    const std::uint32_t da = i == 0 ? 0 : fine[i - 1];
    return std::string_view(nomi).substr(da, fine[i] - da);
  }
};

// What one look at a folder concluded.
struct Sguardo {
  bool leggibile = false;  // false: nothing is concluded about its files
  std::int64_t mancanti = 0;
  std::optional<MancantiCartella> da_ricordare;
};

double in_secondi(const timespec& t) { return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9; }

// A folder's times change with every name added, removed or renamed in it.
std::string firma_di(const struct stat& st) {
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" +
         std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + ":" +
         std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec);
}

Sguardo guarda(const NomiIndicizzati& g, const std::optional<MancantiCartella>& prima,
               double margine) {
  struct stat st;
  if (::stat(g.cartella.c_str(), &st) != 0) {
    if (errno == ENOENT) return {true, static_cast<std::int64_t>(g.fine.size()), std::nullopt};
    return {};
  }
  std::string firma = firma_di(st);
  if (prima && prima->firma_cartella == firma && prima->firma_righe == g.firma)
    return {true, prima->mancanti, prima};
  // Its times are read before its names: a change in between makes the next count look again.
  std::optional<std::vector<std::string>> elenco = nomi_ordinati(g.cartella);
  if (!elenco) return {};
  Sguardo s{true, 0, std::nullopt};
  for (std::size_t i = 0; i < g.fine.size(); ++i)
    if (!std::binary_search(elenco->begin(), elenco->end(), g.nome(i), std::less<>())) ++s.mancanti;
  const double cambiata = std::max(in_secondi(st.st_mtim), in_secondi(st.st_ctim));
  if (_ora() - cambiata >= margine) s.da_ricordare = MancantiCartella{firma, g.firma, s.mancanti};
  return s;
}

}  // namespace

std::int64_t conta_righe_senza_file(const Config& cfg, double margine) {
  if (!_archivio_presente(cfg)) return 0;
  if (std::optional<SenzaFile> r = senza_file_per_cartelle(Servono::kConteggio, margine))
    return r->n;
  std::vector<std::shared_ptr<NomiIndicizzati>> gruppi;
  {
    std::map<std::string, std::size_t, std::less<>> posizione;
    std::size_t ultimo = 0;
    Connessione c = _db();
    c.scorri("SELECT id, file FROM nvr_registrazioni", {}, [&](const Riga& r) {
      const std::string* testo = std::get_if<std::string>(&r[1]);
      const std::string altro = testo ? std::string() : come_testo(r[1]);
      const auto [cartella, nome] = cartella_e_nome(testo ? *testo : altro);
      if (gruppi.empty() || gruppi[ultimo]->cartella != cartella) {
        auto it = posizione.find(cartella);
        if (it == posizione.end()) {
          it = posizione.emplace(std::string(cartella), gruppi.size()).first;
          gruppi.push_back(std::make_shared<NomiIndicizzati>());
          gruppi.back()->cartella = std::string(cartella);
        }
        ultimo = it->second;
      }
      gruppi[ultimo]->aggiungi(nome);
    });
  }

  const std::map<std::string, MancantiCartella> ricordo = _mancanti_per_cartella.get();
  std::map<std::string, MancantiCartella> nuovo;
  std::int64_t totale = 0;
  for (const auto& g : gruppi) {
    std::optional<MancantiCartella> prima;
    if (auto it = ricordo.find(g->cartella); it != ricordo.end()) prima = it->second;
    auto sguardo = _con_timeout([g, prima, margine] { return guarda(*g, prima, margine); }, 5);
    // A folder that cannot be read, or answers too slowly, says nothing about its files.
    if (!sguardo.ok() || !sguardo.valore().leggibile) continue;
    totale += sguardo.valore().mancanti;
    if (sguardo.valore().da_ricordare) nuovo[g->cartella] = *sguardo.valore().da_ricordare;
  }
  _mancanti_per_cartella.set(std::move(nuovo));
  return totale;
}

int _allinea(const Config& cfg) {
  std::vector<std::int64_t> ids = _righe_senza_file(cfg);
  if (ids.empty()) return 0;
  std::vector<std::vector<Valore>> lotti;
  lotti.reserve(ids.size());
  for (std::int64_t id : ids) lotti.push_back({id});
  Connessione c = _db();
  c.esegui_molti("DELETE FROM nvr_registrazioni WHERE id=?", lotti);
  c.commit();
  return static_cast<int>(ids.size());
}

}  // namespace nvr
