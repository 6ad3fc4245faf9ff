#include "web/api_elimina.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>

#include "archive/allineamento.h"
#include "archive/elenchi.h"
#include "archive/indice.h"
#include "archive/posizione.h"
#include "archive/selezione.h"
#include "core/config.h"
#include "core/log.h"
#include "core/stato.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "web/api_registrazioni.h"

namespace nvr {

namespace fs = std::filesystem;

Risposta api_elimina_registrazione(const Richiesta& r) {
  Config cfg = leggi_config();
  std::int64_t rid = r.rid.value_or(-1);
  if (std::optional<std::string> file = file_registrazione(rid)) {
    std::error_code ec;
    if (!file->empty()) fs::remove(*file, ec);
    _togli_cartelle_vuote(*file, cfg.cartella);
  }
  cancella_registrazione(rid);
  return _json(Json{{"status", "success"}});
}

namespace {

bool solo_cifre(const std::string& s) {
  if (s.empty()) return false;
  for (char ch : s)
    if (ch < '0' || ch > '9') return false;
  return true;
}

// Empties the in-progress folders of the affected cameras; their recorders are already stopped.
// Answers how many segment files went. No lock is held while it walks and deletes, so the engine
// and the status page are never held up by the disk.
int svuota_in_corso(const Config& cfg, const std::set<CamId>& camere,
                    const std::vector<Camera>& cams) {
  int tolti = 0;
  for (CamId id : camere) {
    dimentica_in_corso_precedenti(id);
    Camera cam;
    cam.id = id;
    for (const Camera& c : cams)
      if (c.id == id) cam = c;
    fs::path cartella = _cartella_in_corso(cfg, cam, cams);
    std::error_code ec;
    fs::directory_iterator it(cartella, ec);
    if (ec) continue;
    std::vector<fs::path> file;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
      if (ec) break;
      if (it->path().extension() == ".mp4") file.push_back(it->path());
    }
    for (const fs::path& f : file)
      if (fs::remove(f, ec)) ++tolti;
    if (fs::is_empty(cartella, ec) && !ec) fs::remove(cartella, ec);
    _togli_cartelle_vuote(cartella.string(), cfg.cartella);  // from the camera folder upwards
  }
  return tolti;
}

}  // namespace

Risposta api_elimina_registrazioni(const Richiesta& r) {
  Config cfg = leggi_config();
  const Json corpo = r.corpo.is_object() ? r.corpo : Json::object();
  if (pieno(campo(corpo, "senza_file"))) {
    int voci = _allinea(cfg);
    return _json(Json{{"status", "success"}, {"voci", voci}, {"file", 0}});
  }
  if (!_archivio_presente(cfg))
    return errore_json("Unità di archivio non collegata: collegala e riprova.", 409);

  Selezione selezione;
  const Json& cam_json = campo(corpo, "cam");
  if (pieno(cam_json)) {
    std::string testo = testo_di(cam_json);
    if (!solo_cifre(testo)) return errore_json("Telecamera non valida", 400);
    selezione.cam = intero(Json(testo));
  }
  const Json& giorno_json = campo(corpo, "giorno");
  if (pieno(giorno_json)) {
    selezione.giorno =
        giorno_json.is_string() ? _intervallo_giorno(giorno_json.get<std::string>()) : std::nullopt;
    if (!selezione.giorno) return errore_json("Giorno non valido", 400);
  }
  selezione.tutto = pieno(campo(corpo, "tutto"));
  if (!selezione.cam && !selezione.giorno && !selezione.tutto)
    return errore_json("Indica cosa cancellare", 400);

  const std::vector<SegmentoScelto> scelti = segmenti_selezionati(selezione);
  std::set<CamId> camere;
  for (const SegmentoScelto& x : scelti) camere.insert(x.cam);
  if (selezione.tutto) {
    for (const auto& [id, p] : registratori_in_corso()) camere.insert(id);
  }
  int file = 0;
  if (!camere.empty()) {
    std::vector<Camera> cams = _telecamere();
    auto senza_giri = blocca_giri();
    for (CamId id : camere) _ferma(id, "archivio svuotato");
    file += svuota_in_corso(cfg, camere, cams);
  }

  for (const SegmentoScelto& x : scelti) {
    const std::string& percorso = x.file;
    std::error_code ec;
    if (fs::remove(percorso, ec)) {
      ++file;
    } else if (ec && ec != std::errc::no_such_file_or_directory) {
      _log("non riesco a cancellare " + percorso + ": " + ec.message());
    }
    _togli_cartelle_vuote(percorso, cfg.cartella);
  }

  cancella_selezione(selezione, scelti);
  _giro_sicuro();
  return _json(Json{
      {"status", "success"}, {"voci", static_cast<std::int64_t>(scelti.size())}, {"file", file}});
}

}  // namespace nvr
