#include "web/api_registrazioni.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "archive/allineamento.h"
#include "archive/elenchi.h"
#include "archive/posizione.h"
#include "archive/riepilogo.h"
#include "archive/sommari.h"
#include "core/config.h"
#include "core/numeri.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "engine/registratori.h"
#include "storage/montaggi.h"
#include "web/file_video.h"

namespace nvr {

std::optional<std::pair<double, double>> _intervallo_giorno(const std::string& giorno) {
  std::optional<std::tm> t = leggi_giorno(giorno);
  if (!t) return std::nullopt;
  Zona z = _fuso();
  std::tm dopo = *t;
  dopo.tm_mday += 1;
  return std::make_pair(epoch_di(*t, z), epoch_di(dopo, z));
}

Risposta api_giorni(const Richiesta& r) {
  std::int64_t cam = intero(Json(r.parametro("cam"))).value_or(0);
  std::set<std::string> giorni =
      giorni_con_registrazioni(cam ? std::optional<CamId>(cam) : std::nullopt);
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

  const GiornataCamera giornata = giornata_camera(*cam, inizio_giorno, fine_giorno);
  Json in_corso;
  if (auto p = registratore_di(*cam)) in_corso = Json{{"da", p->da}, {"motivo", p->motivo}};
  Config cfg = leggi_config();
  bool archivio_ok = _archivio_presente(cfg);
  std::set<std::string> manca;
  if (archivio_ok) {
    std::vector<std::string> file;
    for (const SegmentoElencato& x : giornata.segmenti) file.push_back(x.file);
    manca = _mancanti(file);
  }

  Json registrazioni = Json::array();
  for (const SegmentoElencato& x : giornata.segmenti) {
    if (manca.count(x.file)) continue;
    registrazioni.push_back(Json{
        {"id", x.id},
        {"inizio", x.inizio},
        {"fine", x.fine},
        {"durata", static_cast<std::int64_t>(arrotonda(x.fine - x.inizio))},
        {"mb", arrotonda(static_cast<double>(x.dimensione) / 1e6, 1)},
        {"motivo", x.motivo},
        {"url", "/api/nvr/video/" + std::to_string(x.id)},
    });
  }
  Json lista_eventi = Json::array();
  for (const EventoElencato& e : giornata.eventi)
    lista_eventi.push_back(Json{{"ts", e.ts}, {"entita", e.entita}, {"stato", e.stato}});

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

namespace {

Risposta risposta_video(const Richiesta& r, const std::string& file) {
  Risposta risposta;
  risposta.file = FileDaInviare{file, "video/mp4", r.parametro("scarica") == "1",
                                std::filesystem::path(file).filename().string()};
  risposta.intestazioni = {{"Accept-Ranges", "bytes"}, {"Cache-Control", "private, max-age=3600"}};
  return risposta;
}

}  // namespace

Risposta api_video(const Richiesta& r) {
  const std::string file = r.rid ? file_video(*r.rid).value_or(FileVideo{}).percorso : "";
  struct stat st;
  if (file.empty() || ::stat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    return errore_json("Registrazione non trovata", 404);
  return risposta_video(r, file);
}

std::optional<Risposta> api_video_subito(const Richiesta& r) {
  std::optional<FileVideo> f = r.rid ? file_video_ricordato(*r.rid) : std::nullopt;
  if (!f || !f->locale || f->percorso.empty()) return std::nullopt;
  return risposta_video(r, f->percorso);
}

namespace {

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

  const Zona zona = _fuso();
  std::optional<RiepilogoArchivio> dai_sommari = riepilogo_da_sommari(zona);
  if (!dai_sommari) costruisci_sommari_in_fondo();
  const RiepilogoArchivio riepilogo =
      dai_sommari ? std::move(*dai_sommari) : riepilogo_archivio(zona);
  for (const auto& [id, camera] : riepilogo.camere) {
    Riassunto& r = riassunto_di(id);
    r.totale = camera.totale;
    r.giorni = camera.giorni;
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
      {"totale", Json{{"n", riepilogo.righe}, {"gb", arrotonda(riepilogo.byte / 1e9, 2)}}},
      {"senza_file",
       archivio_ok ? conta_righe_senza_file(cfg) : std::int64_t{0}},
      {"telecamere", telecamere},
  });
}

}  // namespace nvr
