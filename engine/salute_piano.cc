#include "engine/salute_piano.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

namespace nvr {

namespace {

constexpr double kGB = 1e9;

std::string uno_decimale(double x) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f", x);
  std::string s = buf;
  std::replace(s.begin(), s.end(), '.', ',');
  return s;
}

// Bytes per hour over the span its last 24 h of segments cover; a camera that started recording
// ten minutes ago is measured over those ten minutes, one recording on a schedule over the day.
double byte_ora(const OsservaCamera& c, double adesso) {
  if (!c.primo_inizio_24h || c.byte_24h <= 0) return 0;
  double arco = std::max(adesso - *c.primo_inizio_24h, 60.0);
  return c.byte_24h * 3600.0 / arco;
}

std::optional<Problema> camera_ferma(const OsservaCamera& c, const OsservaSalute& o) {
  if (!c.abilitata || !c.voluta) return std::nullopt;
  double riferimento = c.voluta_da;
  if (c.ultima_fine) riferimento = std::max(riferimento, *c.ultima_fine);
  if (c.avviato_da) riferimento = std::max(riferimento, *c.avviato_da);
  double soglia = 2.0 * o.segmento_sec + o.margine;
  double eta = o.adesso - riferimento;
  if (eta <= soglia) return std::nullopt;
  std::string testo = c.ultima_fine && *c.ultima_fine >= riferimento
                          ? "La telecamera " + c.nome + " non registra da " + durata_leggibile(eta)
                          : "La telecamera " + c.nome +
                                " dovrebbe registrare ma non ha salvato "
                                "nulla negli ultimi " +
                                durata_leggibile(eta);
  return Problema{"camera_ferma:" + std::to_string(c.id), testo, riferimento};
}

StatoCamera stato_di(const OsservaCamera& c, bool ferma) {
  if (!c.abilitata) return StatoCamera::spenta;
  if (ferma) return StatoCamera::ferma;
  if (c.in_corso) return StatoCamera::registra;
  return StatoCamera::in_attesa;
}

}  // namespace

std::string durata_leggibile(double secondi) {
  struct Unita {
    double sec;
    const char* una;
    const char* tante;
  };
  static const Unita unita[] = {
      {86400, "giorno", "giorni"}, {3600, "ora", "ore"}, {60, "minuto", "minuti"}};
  // Two of a unit before switching to it: "90 secondi" reads better than "1 minuto".
  for (const Unita& u : unita) {
    if (secondi < 2 * u.sec) continue;
    long n = static_cast<long>(secondi / u.sec);
    return std::to_string(n) + " " + u.tante;
  }
  long n = std::max(0L, static_cast<long>(secondi));
  return std::to_string(n) + (n == 1 ? " secondo" : " secondi");
}

Salute valuta_salute(const OsservaSalute& o) {
  Salute s;
  s.quando = o.adesso;
  s.archivio_collegato = o.archivio_collegato;
  s.byte_liberi = o.byte_liberi;
  s.byte_totali = o.byte_totali;
  s.ffmpeg = o.ffmpeg;

  std::vector<Problema> camere;
  double byte_ora_totali = 0;
  double byte_indicizzati = 0;
  for (const OsservaCamera& c : o.camere) {
    std::optional<Problema> p = o.attivo ? camera_ferma(c, o) : std::nullopt;
    SaluteCamera sc;
    sc.id = c.id;
    sc.nome = c.nome;
    sc.stato = o.attivo ? stato_di(c, p.has_value()) : StatoCamera::spenta;
    sc.ultimo_segmento = c.ultima_fine;
    sc.avvii_ultima_ora = c.avvii_ultima_ora;
    sc.byte_ora = byte_ora(c, o.adesso);
    sc.segmenti = c.segmenti;
    sc.byte = c.byte;
    byte_ora_totali += sc.byte_ora;
    byte_indicizzati += static_cast<double>(c.byte);
    s.telecamere.push_back(std::move(sc));
    if (p) camere.push_back(std::move(*p));
  }

  const double pavimento = o.spazio_min_gb * kGB;
  if (byte_ora_totali > 0 && o.byte_liberi) {
    double al_giorno = byte_ora_totali * 24;
    s.giorni_rimasti = std::max(0.0, (static_cast<double>(*o.byte_liberi) - pavimento) / al_giorno);
  }
  if (!o.attivo) return s;

  if (!o.archivio_collegato)
    s.problemi.push_back({"archivio",
                          o.archivio_messaggio.empty()
                              ? "L'archivio non è collegato"
                              : "L'archivio non è collegato: " + o.archivio_messaggio,
                          o.adesso});
  if (!o.ffmpeg)
    s.problemi.push_back(
        {"ffmpeg", "ffmpeg non è installato: nessuna telecamera può registrare", o.adesso});
  if (o.byte_liberi && static_cast<double>(*o.byte_liberi) < pavimento)
    s.problemi.push_back({"spazio",
                          "Spazio quasi esaurito sull'archivio: " +
                              uno_decimale(static_cast<double>(*o.byte_liberi) / kGB) +
                              " GB liberi, il minimo è " + uno_decimale(o.spazio_min_gb) + " GB",
                          o.adesso});
  // What the archive can hold at this rate: what it holds now plus the free space above the
  // floor. Retention by free space deletes anything beyond that, whatever the days configured.
  if (s.giorni_rimasti && o.giorni > 0) {
    double capienza =
        (byte_indicizzati + std::max(0.0, static_cast<double>(*o.byte_liberi) - pavimento)) /
        (byte_ora_totali * 24);
    if (capienza < o.giorni)
      s.problemi.push_back({"giorni",
                            "Al ritmo attuale l'archivio contiene circa " + uno_decimale(capienza) +
                                " giorni di registrazioni, meno dei " + std::to_string(o.giorni) +
                                " giorni da conservare",
                            o.adesso});
  }
  s.problemi.insert(s.problemi.end(), camere.begin(), camere.end());
  return s;
}

CambiProblemi confronta_problemi(const std::vector<Problema>& prima,
                                 const std::vector<Problema>& ora) {
  CambiProblemi c;
  std::map<std::string, const Problema*> vecchi;
  for (const Problema& p : prima) vecchi[p.codice] = &p;
  for (Problema p : ora) {
    auto v = vecchi.find(p.codice);
    if (v == vecchi.end()) {
      c.righe.push_back("problema: " + p.testo);
    } else {
      p.da = std::min(p.da, v->second->da);
      vecchi.erase(v);
    }
    c.problemi.push_back(std::move(p));
  }
  for (const Problema& p : prima)
    if (vecchi.count(p.codice)) c.righe.push_back("risolto: " + p.testo);
  return c;
}

}  // namespace nvr
