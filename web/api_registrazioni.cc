#include "web/api_registrazioni.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <set>

#include "archive/allineamento.h"
#include "archive/posizione.h"
#include "core/config.h"
#include "core/db.h"
#include "core/numeri.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "engine/registratori.h"
#include "storage/montaggi.h"

namespace nvr {

std::optional<std::pair<double, double>> _intervallo_giorno(const std::string& giorno) {
  std::optional<std::tm> t = leggi_giorno(giorno);
  if (!t) return std::nullopt;
  Zona z = _fuso();
  std::tm dopo = *t;
  dopo.tm_mday += 1;
  return std::make_pair(epoch_di(*t, z), epoch_di(dopo, z));
}

namespace {

std::string giorno_locale(const Valore& inizio) {
  return formatta(scomponi(come_reale(inizio), nullptr), "%Y-%m-%d");
}

// Adds the machine-local day of every start among the rows that `filtro` (on cam_id) selects.
// An archive holds thousands of segments a day: rather than reading them all, the (cam_id,
// inizio) index is asked for the first start at or after each next local midnight, one seek
// per day that has recordings.
void giorni_di(Connessione& c, const std::string& filtro, const std::vector<Valore>& chiave,
               std::set<std::string>& giorni) {
  auto con = [&](Valore v) {
    std::vector<Valore> p = chiave;
    p.push_back(std::move(v));
    return p;
  };
  // A start that is not there reads as 0, the epoch's day.
  if (!c.righe("SELECT 1 FROM nvr_registrazioni WHERE " + filtro + " AND inizio IS NULL LIMIT 1",
               chiave)
           .empty())
    giorni.insert(giorno_locale(Valore()));
  const std::string primo = "SELECT inizio FROM nvr_registrazioni WHERE " + filtro +
                            " AND inizio >= ? ORDER BY inizio "
                            "LIMIT 1";
  double da = -std::numeric_limits<double>::max();
  for (;;) {
    std::vector<Riga> r = c.righe(primo, con(da));
    if (r.empty()) return;
    if (std::holds_alternative<std::string>(r[0][0])) {
      // Texts sort after every number: the rest are texts, read one by one.
      c.scorri("SELECT inizio FROM nvr_registrazioni WHERE " + filtro +
                   " AND typeof(inizio) IN ('text', 'blob')",
               chiave, [&](const Riga& x) { giorni.insert(giorno_locale(x[0])); });
      return;
    }
    const double t = come_reale(r[0][0]);
    std::tm giorno = scomponi(t, nullptr);
    giorni.insert(formatta(giorno, "%Y-%m-%d"));
    std::tm dopo = giorno;
    dopo.tm_mday += 1;
    dopo.tm_hour = dopo.tm_min = dopo.tm_sec = 0;
    const double mezzanotte = epoch_di(dopo, nullptr);
    // Should the computed midnight ever fall past the next day's start, step row by row.
    const bool esatta = mezzanotte > t && formatta(scomponi(mezzanotte - 1, nullptr), "%Y-%m-%d") ==
                                              formatta(giorno, "%Y-%m-%d");
    da = esatta ? mezzanotte : std::nextafter(t, std::numeric_limits<double>::infinity());
  }
}

}  // namespace

Risposta api_giorni(const Richiesta& r) {
  std::int64_t cam = intero(Json(r.parametro("cam"))).value_or(0);
  std::set<std::string> giorni;
  {
    Connessione c = _db();
    if (cam) {
      giorni_di(c, "cam_id=?", {cam}, giorni);
    } else {
      // Every camera id in turn (one index seek each), then the rows without one.
      std::vector<Riga> id = c.righe("SELECT MIN(cam_id) FROM nvr_registrazioni");
      while (!nullo(id.at(0).at(0))) {
        giorni_di(c, "cam_id=?", {id[0][0]}, giorni);
        id = c.righe("SELECT MIN(cam_id) FROM nvr_registrazioni WHERE cam_id > ?", {id[0][0]});
      }
      giorni_di(c, "cam_id IS NULL", {}, giorni);
    }
  }
  return _json(Json{{"giorni", Json(std::vector<std::string>(giorni.begin(), giorni.end()))}});
}

Risposta api_registrazioni(const Richiesta& r) {
  auto q = r.query.find("cam");
  std::optional<std::int64_t> cam =
      q == r.query.end() ? std::optional<std::int64_t>(0) : intero(Json(q->second));
  if (!cam) return errore_json("Telecamera non valida", 400);
  std::string giorno = r.parametro("giorno");
  if (giorno.empty()) giorno = formatta(_adesso(), "%Y-%m-%d");
  auto intervallo = _intervallo_giorno(giorno);
  if (!intervallo) return errore_json("Giorno non valido", 400);
  auto [inizio_giorno, fine_giorno] = *intervallo;

  std::vector<Riga> righe, eventi;
  {
    Connessione c = _db();
    // "fine > day start" alone gives the index no lower end, so every earlier segment of the
    // camera would be read. No segment lasts longer than the camera's longest one, so none
    // starting before the day minus that length can reach into the day (one second spare for
    // rounding of the stored times). No length at all: no row has both times, none can overlap.
    const Valore lunga =
        c.righe("SELECT MAX(fine - inizio) FROM nvr_registrazioni WHERE cam_id=?", {*cam})
            .at(0)
            .at(0);
    if (!nullo(lunga))
      righe = c.righe(
          "SELECT id, inizio, fine, dimensione, motivo, file FROM nvr_registrazioni WHERE "
          "cam_id=? AND inizio >= ? AND inizio < ? AND fine > ? ORDER BY inizio",
          {*cam, inizio_giorno - std::max(0.0, come_reale(lunga)) - 1, fine_giorno, inizio_giorno});
    eventi = c.righe(
        "SELECT ts, entity_id, stato FROM nvr_eventi WHERE cam_id=? AND ts >= ? AND ts < ? "
        "ORDER BY ts",
        {*cam, inizio_giorno, fine_giorno});
  }
  Json in_corso;
  if (auto p = registratore_di(*cam)) in_corso = Json{{"da", p->da}, {"motivo", p->motivo}};
  Config cfg = leggi_config();
  bool archivio_ok = _archivio_presente(cfg);
  std::set<std::string> manca;
  if (archivio_ok) {
    std::vector<std::string> file;
    for (const Riga& riga : righe) file.push_back(come_testo(riga[5]));
    manca = _mancanti(file);
  }

  Json registrazioni = Json::array();
  for (const Riga& riga : righe) {
    if (manca.count(come_testo(riga[5]))) continue;
    std::int64_t id = come_intero(riga[0]);
    double inizio = come_reale(riga[1]), fine = come_reale(riga[2]);
    registrazioni.push_back(Json{
        {"id", id},
        {"inizio", inizio},
        {"fine", fine},
        {"durata", static_cast<std::int64_t>(arrotonda(fine - inizio))},
        {"mb", arrotonda(static_cast<double>(come_intero(riga[3])) / 1e6, 1)},
        {"motivo", come_testo(riga[4])},
        {"url", "/api/nvr/video/" + std::to_string(id)},
    });
  }
  Json lista_eventi = Json::array();
  for (const Riga& e : eventi)
    lista_eventi.push_back(
        Json{{"ts", come_reale(e[0])}, {"entita", come_testo(e[1])}, {"stato", come_testo(e[2])}});

  return _json(Json{
      {"giorno", giorno},
      {"inizio_giorno", inizio_giorno},
      {"fine_giorno", fine_giorno},
      {"segmento_sec", cfg.segmento_sec},
      {"archivio_ok", archivio_ok},
      {"registrazioni", registrazioni},
      {"eventi", lista_eventi},
      {"in_corso", in_corso},
  });
}

Risposta api_video(const Richiesta& r) {
  std::string file;
  {
    Connessione c = _db();
    auto righe = c.righe("SELECT file FROM nvr_registrazioni WHERE id=?", {r.rid.value_or(-1)});
    if (!righe.empty()) file = come_testo(righe[0][0]);
  }
  struct stat st;
  if (file.empty() || ::stat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    return errore_json("Registrazione non trovata", 404);
  Risposta risposta;
  risposta.file = FileDaInviare{file, "video/mp4", r.parametro("scarica") == "1",
                                std::filesystem::path(file).filename().string()};
  risposta.intestazioni = {{"Accept-Ranges", "bytes"}, {"Cache-Control", "private, max-age=3600"}};
  return risposta;
}

namespace {

struct Somma {
  std::int64_t n = 0;
  double byte = 0;
  double sec = 0;
  void aggiungi(double dimensione, double durata) {
    ++n;
    byte += dimensione;
    sec += std::max(0.0, durata);
  }
};

struct Riassunto {
  CamId id = 0;
  std::string nome;
  bool presente = false;
  std::string cartella;
  Somma totale;
  std::map<std::string, Somma> giorni;
};

}  // namespace

Risposta api_archivio(const Richiesta&) {
  Config cfg = leggi_config();
  std::vector<Camera> cams = _telecamere();
  std::map<CamId, const Camera*> per_id;
  for (const Camera& c : cams) per_id[c.id] = &c;

  std::map<CamId, Riassunto> riassunti;
  auto riassunto_di = [&](CamId id) -> Riassunto& {
    auto it = riassunti.find(id);
    if (it != riassunti.end()) return it->second;
    Riassunto r;
    r.id = id;
    auto c = per_id.find(id);
    r.presente = c != per_id.end();
    r.nome = r.presente ? c->second->nome : "Telecamera " + std::to_string(id);
    r.cartella = r.presente ? _nome_cartella_cam(*c->second, cams) : "cam_" + std::to_string(id);
    return riassunti.emplace(id, std::move(r)).first->second;
  };

  std::int64_t righe = 0;
  double byte_totali = 0;
  // The zone is asked once: the host may be slow to answer, and rows are many. Rows come
  // camera by camera in time order, so the day and the camera's entry are looked up again only
  // when they change.
  GiornoLocale giorno_di(_fuso());
  Riassunto* attuale = nullptr;
  Somma* somma_giorno = nullptr;
  std::string giorno_attuale;
  {
    Connessione c = _db();
    c.scorri(
        "SELECT cam_id, inizio, fine, dimensione FROM nvr_registrazioni ORDER BY cam_id, "
        "inizio",
        {}, [&](const Riga& riga) {
          double inizio = come_reale(riga[1]), fine = come_reale(riga[2]);
          double dimensione = static_cast<double>(come_intero(riga[3]));
          const CamId id = come_intero(riga[0]);
          if (!attuale || attuale->id != id) {
            attuale = &riassunto_di(id);
            somma_giorno = nullptr;
          }
          attuale->totale.aggiungi(dimensione, fine - inizio);
          const std::string& giorno = giorno_di.di(inizio);
          if (!somma_giorno || giorno != giorno_attuale) {
            giorno_attuale = giorno;
            somma_giorno = &attuale->giorni[giorno];
          }
          somma_giorno->aggiungi(dimensione, fine - inizio);
          ++righe;
          byte_totali += dimensione;
        });
  }
  for (const Camera& cam : cams) riassunto_di(cam.id);

  std::vector<const Riassunto*> ordine;
  for (const auto& [id, r] : riassunti) ordine.push_back(&r);
  std::stable_sort(ordine.begin(), ordine.end(), [](const Riassunto* a, const Riassunto* b) {
    if (a->presente != b->presente) return a->presente;
    return a->id < b->id;
  });

  Json telecamere = Json::array();
  for (const Riassunto* r : ordine) {
    Json giorni = Json::array();
    for (auto it = r->giorni.rbegin(); it != r->giorni.rend(); ++it)
      giorni.push_back(Json{{"giorno", it->first},
                            {"n", it->second.n},
                            {"mb", static_cast<std::int64_t>(arrotonda(it->second.byte / 1e6))},
                            {"sec", it->second.sec}});
    telecamere.push_back(Json{{"id", r->id},
                              {"nome", r->nome},
                              {"presente", r->presente},
                              {"n", r->totale.n},
                              {"gb", arrotonda(r->totale.byte / 1e9, 2)},
                              {"sec", r->totale.sec},
                              {"cartella", r->cartella},
                              {"giorni", giorni}});
  }

  bool archivio_ok = _archivio_presente(cfg);
  std::optional<Spazio> spazio;
  if (archivio_ok) spazio = _spazio_sicuro(cfg.cartella);
  return _json(Json{
      {"cartella", cfg.cartella},
      {"archivio_ok", archivio_ok},
      {"spazio", spazio ? spazio->come_json() : Json()},
      {"giorni_conservazione", cfg.giorni},
      {"totale", Json{{"n", righe}, {"gb", arrotonda(byte_totali / 1e9, 2)}}},
      {"senza_file",
       archivio_ok ? conta_righe_senza_file(cfg) : std::int64_t{0}},
      {"telecamere", telecamere},
  });
}

}  // namespace nvr
