#include "core/config.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "core/db.h"

namespace nvr {

namespace {

// A stored JSON list; an empty list when the text is missing, not JSON or not a list.
Json lista_salvata(const Valore& v) {
  if (!std::holds_alternative<std::string>(v)) return Json::array();
  auto letto = leggi_json(std::get<std::string>(v));
  return letto && letto->is_array() ? *letto : Json::array();
}

}  // namespace

Json Config::come_json() const {
  return Json{{"attivo", attivo},
              {"cartella", cartella},
              {"destinazione", destinazione},
              {"segmento_sec", segmento_sec},
              {"giorni", giorni},
              {"spazio_min_gb", spazio_min_gb}};
}

Json Camera::come_json() const {
  return Json{{"id", id},         {"nome", nome},     {"url", url},
              {"attiva", attiva}, {"modo", modo},     {"orari", orari},
              {"eventi", eventi}, {"post_roll", post_roll}};
}

Config leggi_config() {
  std::vector<Riga> righe;
  {
    Connessione c = _db();
    righe = c.righe(
        "SELECT attivo, cartella, destinazione, segmento_sec, giorni, spazio_min_gb FROM "
        "nvr_config WHERE id=1");
  }
  Config cfg;
  if (righe.empty()) return cfg;
  const Riga& r = righe[0];

  std::string dest = come_testo(r[2]);
  if (valore_vuoto(r[2])) dest = "{}";
  auto letta = leggi_json(dest);
  cfg.destinazione = letta ? *letta : Json::object();

  auto intero_o = [](const Valore& v, std::int64_t predefinito) {
    std::int64_t n = valore_vuoto(v) ? predefinito : come_intero(v, predefinito);
    return static_cast<int>(std::clamp<std::int64_t>(n, INT32_MIN, INT32_MAX));
  };
  cfg.attivo = intero_o(r[0], 0);
  cfg.cartella = valore_vuoto(r[1]) ? "" : come_testo(r[1]);
  cfg.segmento_sec = intero_o(r[3], 300);
  cfg.giorni = intero_o(r[4], 14);
  cfg.spazio_min_gb = valore_vuoto(r[5]) ? 2.0 : come_reale(r[5], 2.0);
  return cfg;
}

void _salva_config(const Config& cfg) {
  Json dest = pieno(cfg.destinazione) ? cfg.destinazione : Json::object();
  Connessione c = _db();
  c.esegui(
      "UPDATE nvr_config SET attivo=?, cartella=?, destinazione=?, segmento_sec=?, giorni=?, "
      "spazio_min_gb=? WHERE id=1",
      {std::int64_t{cfg.attivo ? 1 : 0}, cfg.cartella, testo_json(dest, Ascii::kTieni),
       std::int64_t{cfg.segmento_sec ? cfg.segmento_sec : 300},
       std::int64_t{cfg.giorni ? cfg.giorni : 14},
       cfg.spazio_min_gb != 0.0 ? cfg.spazio_min_gb : 2.0});
  c.commit();
}

std::vector<Camera> _telecamere() {
  std::vector<Riga> host, impostazioni;
  {
    Connessione c = _db();
    host = c.righe("SELECT id, name, rtsp_url FROM tapo_cameras ORDER BY id");
    impostazioni = c.righe("SELECT cam_id, attiva, modo, orari, eventi, post_roll FROM nvr_camere");
  }
  std::map<CamId, const Riga*> per_id;
  for (const Riga& r : impostazioni) per_id[come_intero(r[0])] = &r;

  std::vector<Camera> cams;
  cams.reserve(host.size());
  for (const Riga& h : host) {
    Camera cam;
    cam.id = come_intero(h[0]);
    cam.nome = valore_vuoto(h[1]) ? "Telecamera " + std::to_string(cam.id) : come_testo(h[1]);
    cam.url = valore_vuoto(h[2]) ? "" : come_testo(h[2]);
    auto it = per_id.find(cam.id);
    if (it != per_id.end()) {
      const Riga& s = *it->second;
      cam.attiva = !valore_vuoto(s[1]);
      std::string modo = come_testo(s[2]);
      cam.modo = std::holds_alternative<std::string>(s[2]) && modo_valido(modo) ? modo : "sempre";
      cam.orari = lista_salvata(s[3]);
      cam.eventi = lista_salvata(s[4]);
      cam.post_roll = nullo(s[5]) ? 30 : static_cast<int>(come_intero(s[5], 30));
    }
    cams.push_back(std::move(cam));
  }
  return cams;
}

void _salva_camera(CamId cam_id, const Json& imp) {
  Json orari = Json::array();
  const Json& o = campo(imp, "orari");
  if (o.is_array()) {
    for (const Json& e : o)
      if (e.is_object() && pieno(campo(e, "da")) && pieno(campo(e, "a"))) orari.push_back(e);
  }

  Json eventi = Json::array();
  const Json& ev = campo(imp, "eventi");
  if (ev.is_array()) {
    for (const Json& e : ev)
      if (pieno(e)) eventi.push_back(testo_di(e));
  }

  const Json& m = campo(imp, "modo");
  std::string modo = m.is_string() && modo_valido(m.get<std::string>()) ? m.get<std::string>()
                                                                         : "sempre";
  std::int64_t attiva = pieno(campo(imp, "attiva")) ? 1 : 0;

  const Json& pr = campo(imp, "post_roll");
  std::optional<std::int64_t> n = vuoto(pr) ? std::optional<std::int64_t>(30) : intero(pr);
  if (!n) throw std::invalid_argument("post_roll non e' un numero: " + testo_di(pr));
  std::int64_t post_roll = std::clamp<std::int64_t>(*n, 0, 3600);

  Connessione c = _db();
  c.esegui(
      "INSERT OR REPLACE INTO nvr_camere (cam_id, attiva, modo, orari, eventi, post_roll) VALUES "
      "(?,?,?,?,?,?)",
      {std::int64_t{cam_id}, attiva, modo, testo_json(orari, Ascii::kTieni),
       testo_json(eventi, Ascii::kEscape), post_roll});
  c.commit();
}

Json _config_pubblica(const Config& cfg) {
  Json pubblica = cfg.come_json();
  Json dest = Json::object();
  if (cfg.destinazione.is_object()) {
    for (const auto& [k, v] : cfg.destinazione.items())
      if (k != "password") dest[k] = v;
  }
  pubblica["destinazione"] = dest;
  return pubblica;
}

std::string _cartella_legacy(const Config& cfg, const Camera& cam) {
  return (std::filesystem::path(cfg.cartella) / ("cam_" + std::to_string(cam.id))).string();
}

}  // namespace nvr
