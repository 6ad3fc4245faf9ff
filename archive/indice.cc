#include "archive/indice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <mutex>
#include <set>

#include "archive/nomi_cartelle.h"
#include "archive/posizione.h"
#include "core/db.h"
#include "core/percorsi.h"
#include "core/stato.h"

namespace nvr {

namespace {

namespace fs = std::filesystem;

constexpr double ETA_MINIMA = 15;  // seconds: younger files may still be written
constexpr std::int64_t DIMENSIONE_MINIMA = 1024;
constexpr std::size_t LOTTO = 25;        // pending rows plus renames per transaction
constexpr int MASSIMO_PER_CAMERA = 300;  // in-progress files handled per camera and run

struct InfoFile {
  double mtime = 0.0;
  std::int64_t dimensione = 0;
};

std::optional<InfoFile> info_file(const std::string& p) {
  struct stat st {};
  if (::stat(p.c_str(), &st) != 0) return std::nullopt;
  return InfoFile{static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9,
                  static_cast<std::int64_t>(st.st_size)};
}

bool e_cartella(const std::string& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The names in folder `d`, sorted; absent when it cannot be listed.
std::optional<std::vector<std::string>> elenco(const std::string& d) {
  bool assente = false;
  std::optional<std::vector<std::string>> nomi = nomi_ordinati(d, &assente);
  if (assente) return std::nullopt;
  return nomi;
}

std::vector<std::string> solo_mp4(const std::vector<std::string>& nomi) {
  std::vector<std::string> r;
  std::copy_if(nomi.begin(), nomi.end(), std::back_inserter(r),
               [](const std::string& n) { return n.ends_with(".mp4"); });
  return r;
}

std::string unisci(const std::string& cartella, const std::string& nome) {
  return (fs::path(cartella) / nome).string();
}

// ---- The earlier in-progress folders, this module's own table ----

std::mutex _indice_lock;  // one index run at a time (try_lock: a second caller leaves)
// Day folders a deep run found with every segment indexed, by the look they had then (identity,
// modification and change times). A name added, removed or renamed in a folder changes its
// times, so an unchanged look means nothing to adopt: at millions of rows a deep run reads the
// disk and the index only where something moved. Guarded by _indice_lock (runs are single-flight).
std::map<std::string, std::string> giorni_visti;  // "<cam_id>|<folder>" -> look
std::mutex precedenti_m;
// Camera -> in-progress folders it wrote into before its folder changed; guarded by precedenti_m.
std::map<CamId, std::set<std::string>> _in_corso_precedenti;

// The running recorder's folder (real path) and whether there is one.
std::optional<std::string> cartella_registratore(const RegistratoriInCorso& registratori,
                                                 CamId id) {
  auto it = registratori.find(id);
  if (it == registratori.end()) return std::nullopt;
  const std::string& c = it->second.cartella;
  return c.empty() ? std::string() : percorso_reale_o_normale(c);
}

std::string motivo_registratore(const RegistratoriInCorso& registratori, CamId id) {
  auto it = registratori.find(id);
  return it == registratori.end() ? "" : it->second.motivo;
}

// The camera's earlier in-progress folders that still exist, apart from `attuale` (a camera
// renamed back to an old name writes there again); the others are forgotten.
std::vector<std::string> precedenti_da_svuotare(CamId id, const std::string& attuale) {
  std::set<std::string> copia;
  {
    std::lock_guard l(precedenti_m);
    auto it = _in_corso_precedenti.find(id);
    if (it != _in_corso_precedenti.end()) copia = it->second;
  }
  std::vector<std::string> esistenti, spariti;
  std::string reale_attuale = percorso_reale_o_normale(attuale);
  for (const auto& c : copia) {
    bool da_svuotare = e_cartella(c) && percorso_reale_o_normale(c) != reale_attuale;
    (da_svuotare ? esistenti : spariti).push_back(c);
  }
  if (!spariti.empty()) {
    std::lock_guard l(precedenti_m);
    auto it = _in_corso_precedenti.find(id);
    if (it != _in_corso_precedenti.end()) {
      for (const auto& c : spariti) it->second.erase(c);
      if (it->second.empty()) _in_corso_precedenti.erase(it);
    }
  }
  return esistenti;
}

}  // namespace

void aggiungi_in_corso_precedente(CamId id, const std::string& cartella) {
  std::lock_guard l(precedenti_m);
  _in_corso_precedenti[id].insert(cartella);
}

std::set<std::string> in_corso_precedenti(CamId id) {
  std::lock_guard l(precedenti_m);
  auto it = _in_corso_precedenti.find(id);
  return it == _in_corso_precedenti.end() ? std::set<std::string>{} : it->second;
}

void dimentica_in_corso_precedenti(CamId id) {
  std::lock_guard l(precedenti_m);
  _in_corso_precedenti.erase(id);
}

void azzera_indice_per_test() {
  {
    std::lock_guard l(precedenti_m);
    _in_corso_precedenti.clear();
  }
  std::lock_guard l(_indice_lock);
  giorni_visti.clear();
}

namespace {

void dimentica_precedente(CamId id, const std::string& cartella) {
  std::lock_guard l(precedenti_m);
  auto it = _in_corso_precedenti.find(id);
  if (it == _in_corso_precedenti.end()) return;
  it->second.erase(cartella);
  if (it->second.empty()) _in_corso_precedenti.erase(it);
}

// ---- One camera's run ----

struct Lavoro {
  CamId id = 0;
  const RegistratoriInCorso* registratori = nullptr;
  std::string cart_cam;        // where finished segments go
  std::set<std::string> noti;  // the camera's indexed paths in the folder being handled
  bool profondo = false;
  double ora = 0.0;
  std::vector<RigaIndice> nuovi;
  std::vector<std::pair<std::string, std::string>> rename;

  void forse_scrivi() {
    if (nuovi.size() + rename.size() >= LOTTO) _scrivi_indice(nuovi, rename);
  }
  void scrivi() { _scrivi_indice(nuovi, rename); }
};

// The camera's indexed paths lying directly in `cartella`. A range of the unique index on the
// path ("+cam_id" keeps the planner off the camera's index, which would read all its rows):
// an index of millions of rows is read only where the run looks.
std::set<std::string> noti_in(CamId id, const std::string& cartella) {
  const std::string da = unisci(cartella, "");  // "<cartella>/"
  std::string a = da;
  a.back() = '/' + 1;
  std::set<std::string> noti;
  Connessione c = _db();
  c.scorri("SELECT file FROM nvr_registrazioni WHERE file >= ? AND file < ? AND +cam_id = ?",
           {da, a, id}, [&](const Riga& r) {
             std::string f = come_testo(r[0]);
             if (f.find('/', da.size()) == std::string::npos) noti.insert(std::move(f));
           });
  return noti;
}

// Handles one in-progress file; answers whether it counts towards the per-run cap.
bool gestisci_in_corso(Lavoro& w, const std::string& p, const std::string& nome) {
  std::optional<InfoFile> info = info_file(p);
  if (!info || w.ora - info->mtime < ETA_MINIMA) return false;
  std::optional<double> inizio = _inizio_in_corso(nome);
  if (!inizio) return false;

  if (w.noti.count(p)) {
    // Indexed where it lies because an earlier move failed: a normal run leaves it alone, a
    // deep one tries again.
    if (!w.profondo && non_spostabile(p)) return false;
    std::optional<std::string> dove = _sposta_spezzone(p, w.cart_cam, *inizio);
    if (!dove) return false;
    if (*dove != p) {
      w.rename.emplace_back(*dove, p);
      segna_non_spostabile(p, false);
    } else {
      segna_non_spostabile(p, true);
    }
    return true;
  }

  if (info->dimensione < DIMENSIONE_MINIMA || !_mp4_completo(p)) {
    ::unlink(p.c_str());  // a fragment left by a recorder that died: it will never play
    return false;
  }
  std::string motivo = motivo_registratore(*w.registratori, w.id);
  std::optional<std::string> dove = _sposta_spezzone(p, w.cart_cam, *inizio);
  if (!dove) return false;
  if (*dove == p) segna_non_spostabile(p, true);  // indexed where it lies all the same
  w.nuovi.push_back(RigaIndice{w.id, *inizio, std::max(*inizio + 1, info->mtime), *dove,
                               info->dimensione, motivo});
  return true;
}

void svuota_in_corso(Lavoro& w, const std::string& cartella,
                     const std::optional<std::string>& attiva, int& spostati) {
  std::optional<std::vector<std::string>> nomi = elenco(cartella);
  if (!nomi) return;
  std::vector<std::string> mp4 = solo_mp4(*nomi);
  // The newest file of the folder the recorder writes into is still growing.
  bool scritta_ora = attiva && percorso_reale_o_normale(cartella) == *attiva;
  // While recording, the folder mostly holds only the file being written: no query then.
  w.noti = mp4.size() > (scritta_ora ? 1u : 0u) ? noti_in(w.id, cartella) : std::set<std::string>{};
  for (std::size_t i = 0; i < mp4.size() && spostati < MASSIMO_PER_CAMERA; ++i) {
    if (scritta_ora && i + 1 == mp4.size()) continue;
    bool contato = false;
    try {
      contato = gestisci_in_corso(w, unisci(cartella, mp4[i]), mp4[i]);
    } catch (const ErroreDb&) {
      throw;
    } catch (const std::exception&) {
      continue;  // one bad file never stops the run
    }
    if (!contato) continue;
    ++spostati;
    w.forse_scrivi();
  }
}

// Adopts one day-folder file without a row, when it is a finished segment. Answers whether the
// file now has its row (false: too young, too small, incomplete or unreadable, to be looked at
// again).
bool adotta(Lavoro& w, const std::string& p, const std::string& giorno, const std::string& nome,
            Zona zona) {
  if (w.noti.count(p)) return true;
  std::optional<double> inizio = _inizio_archiviato(giorno, nome, zona);
  if (!inizio) return true;  // not a segment's name: never adopted, nothing to look at again
  std::optional<InfoFile> info = info_file(p);
  if (!info || w.ora - info->mtime < ETA_MINIMA) return false;
  if (info->dimensione < DIMENSIONE_MINIMA || !_mp4_completo(p)) return false;  // never deleted
  w.nuovi.push_back(
      RigaIndice{w.id, *inizio, std::max(*inizio + 1, info->mtime), p, info->dimensione, ""});
  w.noti.insert(p);
  return true;
}

// Within this many seconds of a folder's last change its times may not move again for a new
// name (their granularity): such a folder is not remembered, and looked at again next time.
constexpr double MARGINE_FIRMA = 3;

std::optional<std::string> firma_recente(const std::string& cartella, double ora) {
  struct stat st {};
  if (::stat(cartella.c_str(), &st) != 0) return std::nullopt;
  auto sec = [](const timespec& t) { return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9; };
  if (ora - std::max(sec(st.st_mtim), sec(st.st_ctim)) < MARGINE_FIRMA) return std::string();
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" +
         std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + ":" +
         std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec);
}

void scansione_giorno(Lavoro& w, const std::string& cartella, const std::string& giorno,
                      Zona zona) {
  // Read before the names: a change in between makes the next run look again.
  std::optional<std::string> firma = firma_recente(cartella, _ora());
  if (!firma) return;
  const std::string chiave = std::to_string(w.id) + "|" + cartella;
  auto vista = giorni_visti.find(chiave);
  if (!firma->empty() && vista != giorni_visti.end() && vista->second == *firma) return;
  std::optional<std::vector<std::string>> nomi = elenco(cartella);
  if (!nomi) return;
  w.noti = noti_in(w.id, cartella);
  bool tutti = true;
  for (const std::string& nome : solo_mp4(*nomi)) {
    try {
      tutti = adotta(w, unisci(cartella, nome), giorno, nome, zona) && tutti;
    } catch (const ErroreDb&) {
      throw;
    } catch (const std::exception&) {
      tutti = false;
    }
  }
  w.scrivi();  // remembered only once its rows are written
  if (tutti && !firma->empty())
    giorni_visti[chiave] = *firma;
  else
    giorni_visti.erase(chiave);
}

void scansione_profonda(Lavoro& w, const std::string& radice, bool legacy) {
  if (!e_cartella(radice)) return;
  std::optional<std::vector<std::string>> voci = elenco(radice);
  Zona zona = _fuso();
  for (const std::string& giorno : voci.value_or(std::vector<std::string>{})) {
    if (!_nome_giorno(giorno)) continue;
    scansione_giorno(w, unisci(radice, giorno), giorno, zona);
  }
  w.scrivi();
  if (legacy && voci && voci->empty()) ::rmdir(radice.c_str());
}

void indicizza_camera(const Config& cfg, const std::vector<Camera>& cams, const Camera& cam,
                      bool profondo, double ora, const RegistratoriInCorso& registratori) {
  Lavoro w;
  w.id = cam.id;
  w.registratori = &registratori;
  w.profondo = profondo;
  w.ora = ora;
  w.cart_cam = _cartella_camera(cfg, cam, cams);
  std::string in_corso = _cartella_in_corso(cfg, cam, cams);
  std::string legacy = _cartella_legacy(cfg, cam);

  std::vector<std::string> profonde{w.cart_cam};
  bool con_legacy = e_cartella(legacy) &&
                    percorso_reale_o_normale(legacy) != percorso_reale_o_normale(w.cart_cam);
  if (con_legacy) profonde.push_back(legacy);
  std::vector<std::string> precedenti = precedenti_da_svuotare(cam.id, in_corso);

  std::optional<std::string> attiva = cartella_registratore(registratori, cam.id);

  int spostati = 0;
  if (e_cartella(in_corso)) svuota_in_corso(w, in_corso, attiva, spostati);
  for (const std::string& c : precedenti) svuota_in_corso(w, c, attiva, spostati);

  // An earlier folder with nothing left to drain goes, with the camera folder it leaves empty.
  for (const std::string& c : precedenti) {
    if (attiva && percorso_reale_o_normale(c) == *attiva) continue;  // a recorder is writing there
    std::optional<std::vector<std::string>> nomi = elenco(c);
    if (!nomi || !solo_mp4(*nomi).empty()) continue;
    dimentica_precedente(cam.id, c);
    ::rmdir(c.c_str());
    _togli_cartelle_vuote(c, cfg.cartella);
  }
  w.scrivi();

  if (!profondo) return;
  for (const std::string& radice : profonde) scansione_profonda(w, radice, radice == legacy);
}

// Cameras that left the host but whose old-layout folders are still in the archive.
void adotta_orfane(const Config& cfg, std::vector<Camera>& cams) {
  std::set<CamId> ids;
  for (const Camera& c : cams) ids.insert(c.id);
  std::optional<std::vector<std::string>> voci = elenco(cfg.cartella);
  if (!voci) return;
  for (const std::string& nome : *voci) {
    auto cifra = [](char c) { return c >= '0' && c <= '9'; };
    if (!nome.starts_with("cam_") || nome.size() == 4 ||
        !std::all_of(nome.begin() + 4, nome.end(), cifra))
      continue;
    CamId id = 0;
    auto letto = std::from_chars(nome.data() + 4, nome.data() + nome.size(), id);
    if (letto.ec != std::errc() || ids.count(id) || !e_cartella(unisci(cfg.cartella, nome)))
      continue;
    Camera orfana;
    orfana.id = id;
    orfana.attiva = false;
    orfana.modo = "sempre";
    cams.push_back(std::move(orfana));
    ids.insert(id);  // "cam_7" and "cam_07" are one camera
  }
}

}  // namespace

void _indicizza(const Config& cfg, std::vector<Camera>& cams, bool profondo,
                const RegistratoriInCorso& registratori) {
  std::unique_lock l(_indice_lock, std::try_to_lock);
  if (!l.owns_lock()) return;  // another run is at it; this one would only repeat it
  _indicizza_dentro(cfg, cams, profondo, registratori);
}

void _indicizza_dentro(const Config& cfg, std::vector<Camera>& cams, bool profondo,
                       const RegistratoriInCorso& registratori) {
  if (cfg.cartella.empty()) return;
  double ora = _ora();
  adotta_orfane(cfg, cams);
  // A copy: the folder names depend on the whole list, which must not move under our feet.
  const std::vector<Camera> tutte = cams;
  for (const Camera& cam : tutte) indicizza_camera(cfg, tutte, cam, profondo, ora, registratori);
}

void _scrivi_indice(std::vector<RigaIndice>& nuovi,
                    std::vector<std::pair<std::string, std::string>>& rename) {
  if (nuovi.empty() && rename.empty()) return;
  {
    Connessione c = _db();
    if (!rename.empty()) {
      std::vector<std::vector<Valore>> lotti;
      for (const auto& [nuovo, vecchio] : rename) lotti.push_back({nuovo, vecchio});
      c.esegui_molti("UPDATE nvr_registrazioni SET file=? WHERE file=?", lotti);
    }
    if (!nuovi.empty()) {
      std::vector<std::vector<Valore>> lotti;
      for (const RigaIndice& r : nuovi)
        lotti.push_back({r.cam_id, r.inizio, r.fine, r.file, r.dimensione, r.motivo});
      c.esegui_molti(
          "INSERT OR IGNORE INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, "
          "motivo) VALUES (?,?,?,?,?,?)",
          lotti);
    }
    c.commit();
  }
  nuovi.clear();
  rename.clear();
}

}  // namespace nvr
