#include "web/api_riproduzione.h"

#include <openssl/evp.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "archive/allineamento.h"
#include "archive/elenchi.h"
#include "archive/mp4_traccia.h"
#include "archive/piano_riproduzione.h"
#include "core/config.h"
#include "core/esito.h"
#include "core/tempo.h"
#include "web/flusso_riproduzione.h"
#include "web/parametri.h"

namespace nvr {

namespace {

constexpr const char* kParametri = "Parametri non validi: da e a sono secondi dal 1970";
constexpr const char* kNessuna = "Nessuna registrazione nel periodo scelto";
constexpr double kMassimoPeriodo = 86400;

enum class Fine { facoltativa, richiesta };

struct Domanda {
  CamId cam = 0;
  std::string nome_camera;
  double da = 0;
  std::optional<double> a;
};

// The checks every route shares, up to the archive's presence, in the order of the contract.
Esito<Domanda> leggi_domanda(const Richiesta& r, Fine fine) {
  Domanda d;
  auto cam = telecamera_da_testo(r.parametro("cam"));
  if (!cam) return Errore{400, "Telecamera non valida"};
  d.cam = *cam;
  for (const Camera& c : _telecamere())
    if (c.id == d.cam) d.nome_camera = c.nome;
  if (d.nome_camera.empty()) {
    if (giorni_con_registrazioni(d.cam).empty()) return Errore{404, "Telecamera non trovata"};
    d.nome_camera = "Telecamera " + std::to_string(d.cam);
  }
  auto da = secondi_da_testo(r.parametro("da"));
  const bool senza_a = r.query.find("a") == r.query.end();
  auto a = secondi_da_testo(r.parametro("a"));
  if (!da || (!a && !(senza_a && fine == Fine::facoltativa))) return Errore{400, kParametri};
  d.da = *da;
  d.a = a;
  if (a && *a <= *da) return Errore{400, "La fine deve venire dopo l'inizio"};
  if (a && *a - *da > kMassimoPeriodo)
    return Errore{400, "Periodo troppo lungo: al massimo 24 ore"};
  if (!_archivio_presente(leggi_config()))
    return Errore{409, "Unità di archivio non collegata: collegala e riprova."};
  return d;
}

// The camera's segments overlapping [da, fine) whose files are present.
std::vector<SegmentoPiano> segmenti_presenti(CamId cam, double da, double fine) {
  const GiornataCamera g = giornata_camera(cam, da, fine);
  std::vector<std::string> file;
  for (const SegmentoElencato& s : g.segmenti) file.push_back(s.file);
  const std::vector<bool> manca = mancanti_per_posizione(file);
  std::vector<SegmentoPiano> presenti;
  for (std::size_t i = 0; i < g.segmenti.size(); ++i)
    if (!g.segmenti[i].file.empty() && !manca[i]) presenti.push_back({g.segmenti[i], std::nullopt});
  return presenti;
}

// The span's segments for [da, a).
Esito<std::vector<SegmentoPiano>> segmenti_del_periodo(const Domanda& d, double a) {
  std::vector<SegmentoPiano> tutti = segmenti_presenti(d.cam, d.da, a);
  auto scelta = scegli_segmenti(tutti, d.da, a);
  if (!scelta) return Errore{404, kNessuna};
  return std::vector<SegmentoPiano>(tutti.begin() + static_cast<std::ptrdiff_t>(scelta->primo),
                                    tutti.begin() + static_cast<std::ptrdiff_t>(scelta->oltre));
}

std::string tre_decimali(double t) {
  char testo[64];
  std::snprintf(testo, sizeof testo, "%.3f", t);
  return testo;
}

Json buchi_json(const std::vector<Buco>& buchi) {
  Json lista = Json::array();
  for (const Buco& b : buchi) lista.push_back(Json::array({b.first, b.second}));
  return lista;
}

std::string testo_buchi(const std::vector<Buco>& buchi) {
  std::string testo = "[";
  for (const Buco& b : buchi) {
    if (testo.size() > 1) testo += ",";
    testo += "[" + tre_decimali(b.first) + "," + tre_decimali(b.second) + "]";
  }
  return testo + "]";
}

Risposta errore(const Errore& e) { return errore_json(e.messaggio, e.codice); }

// --- remembered hashes of exports ---------------------------------------------------------

constexpr std::size_t kImpronteRicordate = 48;

std::mutex impronte_lock;
std::deque<std::pair<std::string, std::string>> impronte;  // guarded by impronte_lock; newest last

std::optional<std::string> impronta_ricordata(const std::string& chiave) {
  std::lock_guard l(impronte_lock);
  for (const auto& [k, v] : impronte)
    if (k == chiave) return v;
  return std::nullopt;
}

void ricorda_impronta(const std::string& chiave, const std::string& sha256) {
  std::lock_guard l(impronte_lock);
  for (auto& [k, v] : impronte)
    if (k == chiave) {
      v = sha256;
      return;
    }
  impronte.emplace_back(chiave, sha256);
  if (impronte.size() > kImpronteRicordate) impronte.pop_front();
}

// What the exported bytes depend on: the query, the rows and the files' size and time. Kept as
// its SHA-256, so that a day of short segments does not make a long key.
std::string chiave_impronta(const Domanda& d, double a, const std::vector<SegmentoPiano>& s) {
  std::string testo = std::to_string(d.cam) + "|" + std::to_string(d.da) + "|" + std::to_string(a);
  char riga[128];
  for (const SegmentoPiano& x : s) {
    struct stat st {};
    if (::stat(x.riga.file.c_str(), &st) != 0) st = {};
    std::snprintf(riga, sizeof riga,
                  "|%lld:%.6f:%.6f:%lld:%lld.%09ld:", static_cast<long long>(x.riga.id),
                  x.riga.inizio, x.riga.fine, static_cast<long long>(st.st_size),
                  static_cast<long long>(st.st_mtim.tv_sec), st.st_mtim.tv_nsec);
    testo += riga + x.riga.file;
  }
  unsigned char somma[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  EVP_Digest(testo.data(), testo.size(), somma, &n, EVP_sha256(), nullptr);
  return std::string(reinterpret_cast<const char*>(somma), n);
}

// Everything the two export routes need before their first byte.
struct Esportazione {
  CorpoEsportazione corpo;
  std::string chiave;
  std::string nome;
};

Esito<Esportazione> prepara(const Richiesta& r) {
  auto d = leggi_domanda(r, Fine::richiesta);
  if (!d) return d.errore();
  const double a = *d.valore().a;
  auto segmenti = segmenti_del_periodo(d.valore(), a);
  if (!segmenti) return segmenti.errore();
  auto corpo = prepara_esportazione(segmenti.valore(), d.valore().da, a);
  if (!corpo) return corpo.errore();
  Esportazione e;
  e.corpo = std::move(corpo).valore();
  e.chiave = chiave_impronta(d.valore(), a, segmenti.valore());
  e.nome = nome_esportazione(d.valore().nome_camera, e.corpo.inizio, _fuso());
  return e;
}

}  // namespace

Risposta api_flusso(const Richiesta& r) {
  auto domanda = leggi_domanda(r, Fine::facoltativa);
  if (!domanda) return errore(domanda.errore());
  const Domanda& d = domanda.valore();
  double a = 0;
  if (d.a) {
    a = *d.a;
  } else {
    const double fine_giorno = giorno_di(d.da, _fuso()).second;
    std::vector<SegmentoPiano> giorno = segmenti_presenti(d.cam, d.da, fine_giorno);
    auto scelta = scegli_segmenti(giorno, d.da, fine_giorno);
    if (!scelta) return errore_json(kNessuna, 404);
    a = fine_predefinita(giorno, scelta->primo, fine_giorno);
  }
  auto segmenti = segmenti_del_periodo(d, a);
  if (!segmenti) return errore(segmenti.errore());
  std::vector<SegmentoPiano>& s = segmenti.valore();

  // The first segment whose track can be read opens the stream; unreadable ones before it
  // count as missing.
  PartenzaFlusso p;
  std::size_t primo = 0;
  for (; primo < s.size(); ++primo) {
    auto t = leggi_traccia(s[primo].riga.file);
    if (t && !t.valore().campioni.empty()) {
      p.prima = std::move(t).valore();
      break;
    }
  }
  if (primo == s.size()) return errore_json(kNessuna, 404);
  s.erase(s.begin(), s.begin() + static_cast<std::ptrdiff_t>(primo));
  s[0].durata = static_cast<double>(p.prima.durata) / p.prima.scala;
  const double da_muro = avvio(s[0]);
  if (d.da > da_muro)
    p.chiave = chiave_prima_di(p.prima, std::llround((d.da - da_muro) * p.prima.scala));
  if (campioni_prima_di(p.prima, da_muro, a) <= p.chiave) return errore_json(kNessuna, 404);
  p.inizio = da_muro + static_cast<double>(p.prima.campioni[p.chiave].dts) / p.prima.scala;
  p.a = a;
  const double inizio = p.inizio;
  const std::string codec = p.prima.info.codec;
  const std::vector<Buco> b = buchi(s, SceltaSegmenti{0, s.size()});
  p.segmenti = std::move(s);

  Risposta risposta;
  risposta.flusso = flusso_riproduzione(std::move(p));
  risposta.intestazioni = {{"X-Nvr-Inizio", tre_decimali(inizio)},
                           {"X-Nvr-Buchi", testo_buchi(b)},
                           {"X-Nvr-Codec", codec}};
  return risposta;
}

Risposta api_esporta(const Richiesta& r) {
  auto e = prepara(r);
  if (!e) return errore(e.errore());
  Esportazione& x = e.valore();
  const std::optional<std::string> nota = impronta_ricordata(x.chiave);
  Risposta risposta;
  risposta.intestazioni = {
      {"Content-Disposition", "attachment; filename=\"" + x.nome + "\""},
      {"X-Nvr-Inizio", tre_decimali(x.corpo.inizio)},
      {"X-Nvr-Buchi", testo_buchi(x.corpo.buchi)},
  };
  if (nota) risposta.intestazioni.emplace_back("X-Nvr-Sha256", *nota);
  risposta.flusso = flusso_esportazione(
      std::move(x.corpo), nota ? Impronta::tralascia : Impronta::calcola,
      [chiave = x.chiave](const std::string& sha256) { ricorda_impronta(chiave, sha256); });
  return risposta;
}

Risposta api_impronta(const Richiesta& r) {
  auto e = prepara(r);
  if (!e) return errore(e.errore());
  const Esportazione& x = e.valore();
  std::optional<std::string> sha256 = impronta_ricordata(x.chiave);
  if (!sha256) {
    auto calcolata = impronta_esportazione(x.corpo);
    if (!calcolata) return errore(calcolata.errore());
    sha256 = calcolata.valore();
    ricorda_impronta(x.chiave, *sha256);
  }
  return _json({{"status", "success"},
                {"sha256", *sha256},
                {"byte", x.corpo.byte},
                {"nome", x.nome},
                {"inizio", x.corpo.inizio},
                {"fine", x.corpo.fine},
                {"buchi", buchi_json(x.corpo.buchi)}});
}

void registra_rotte_riproduzione(AppWeb& app, const Guardia& login, const Guardia& admin) {
  auto protetta = [&](Vista v) {
    if (admin) v = admin(std::move(v));
    if (login) v = login(std::move(v));
    return v;
  };
  app.add_url_rule("/api/flusso", "riproduzione_flusso", protetta(api_flusso), {"GET"});
  app.add_url_rule("/api/esporta", "riproduzione_esporta", protetta(api_esporta), {"GET"});
  app.add_url_rule("/api/esporta/impronta", "riproduzione_impronta", protetta(api_impronta),
                   {"GET"});
}

}  // namespace nvr
