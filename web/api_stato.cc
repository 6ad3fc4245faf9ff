#include "web/api_stato.h"

#include <filesystem>
#include <map>

#include "archive/riepilogo.h"
#include "core/config.h"
#include "core/numeri.h"
#include "core/processo.h"
#include "core/stato.h"
#include "core/tempo.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "storage/usb.h"
#include "web/api_storage.h"

namespace nvr {

namespace {

bool esterna(const Json& dest) {
  const Json& tipo = campo(dest, "tipo");
  return tipo == "usb" || tipo == "rete";
}

// Whether the archive's storage is there: the mount point for a drive or share, a chosen folder
// for a local archive.
bool montata(const Config& cfg) {
  if (esterna(cfg.destinazione)) {
    const Json& mp = campo(cfg.destinazione, "mountpoint");
    return _ismount(mp.is_string() ? mp.get<std::string>() : "");
  }
  return !cfg.cartella.empty();
}

Json spazio_json(const std::optional<Spazio>& sp) { return sp ? sp->come_json() : Json(); }

}  // namespace

std::pair<bool, std::string> _root_ok() {
  if (_sono_root()) return {true, ""};
  RisultatoComando r = _radice({"true"}, 10);
  if (r.codice == 0) return {true, ""};
  return {false, !r.err.empty() ? r.err : r.out};
}

Json stato_generale() {
  Config cfg = leggi_config();
  std::vector<Camera> cams = _telecamere();
  std::map<CamId, Registratore> processi = registratori_in_corso();
  std::map<CamId, ErroreRecente> errori = errori_recenti();

  std::vector<CamId> ids;
  for (const Camera& cam : cams) ids.push_back(cam.id);
  const std::map<CamId, TotaliCamera> totali = totali_camere(ids);
  const double ora = _ora();
  Json telecamere = Json::array();
  for (const Camera& cam : cams) {
    const TotaliCamera& t = totali.at(cam.id);
    auto p = processi.find(cam.id);
    auto e = errori.find(cam.id);
    bool registrando = p != processi.end();
    telecamere.push_back(Json{
        {"id", cam.id},
        {"nome", cam.nome},
        {"attiva", cam.attiva},
        {"modo", cam.modo},
        {"registrando", registrando},
        {"da", registrando ? Json(p->second.da) : Json()},
        {"motivo", registrando ? p->second.motivo : ""},
        {"file", t.n},
        {"gb", arrotonda(t.byte / 1e9, 2)},
        {"ultimo", t.ultima_fine ? Json(*t.ultima_fine) : Json()},
        {"errore", e != errori.end() && ora - e->second.ts < 600 ? e->second.testo : ""},
    });
  }

  bool su = montata(cfg);
  return Json{
      {"attivo", cfg.attivo != 0},
      {"ffmpeg", ffmpeg_presente()},
      {"cartella", cfg.cartella},
      {"destinazione", _config_pubblica(cfg)["destinazione"]},
      {"montata", su},
      {"spazio", su ? spazio_json(_spazio_sicuro(cfg.cartella)) : Json()},
      {"problema", problema_attuale()},
      {"telecamere", telecamere},
      {"giorni", cfg.giorni},
      {"segmento_sec", cfg.segmento_sec},
      {"spazio_min_gb", cfg.spazio_min_gb},
      {"installazione", stato_installazione().testo},
      {"root_ok", _root_ok().first},
      {"utente", _utente_app().nome},
  };
}

Risposta api_stato(const Richiesta&) { return _json(stato_generale()); }

Risposta api_riassunto(const Richiesta&) {
  Json telecamere = Json::array();
  for (const Camera& cam : _telecamere())
    telecamere.push_back(Json{{"id", cam.id}, {"nome", cam.nome}, {"attiva", cam.attiva}});
  return _json(Json{{"attivo", nvr_attivo()}, {"telecamere", telecamere}});
}

Risposta api_storage(const Richiesta&) {
  Config cfg = leggi_config();
  bool su = montata(cfg);
  auto [root_ok, root_msg] = _root_ok();
  Json usb = Json::array();
  for (const Unita& u : unita_usb()) usb.push_back(u.come_json());
  auto helper = [](const char* nome) {
    return programma_presente(nome) || std::filesystem::exists(std::string("/sbin/") + nome);
  };
  return _json(Json{
      {"usb", usb},
      {"destinazione", _config_pubblica(cfg)["destinazione"]},
      {"cartella", cfg.cartella},
      {"montata", su},
      {"spazio", su ? spazio_json(_spazio_sicuro(cfg.cartella)) : Json()},
      {"radice_montaggi", radice_montaggi()},
      {"smb", helper("mount.cifs")},
      {"nfs", helper("mount.nfs")},
      {"ffmpeg", ffmpeg_presente()},
      {"root_ok", root_ok},
      {"root_msg", root_ok ? "" : root_msg},
      {"utente", _utente_app().nome},
  });
}

}  // namespace nvr
