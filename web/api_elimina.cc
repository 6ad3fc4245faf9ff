#include "web/api_elimina.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>

#include "archive/allineamento.h"
#include "archive/indice.h"
#include "archive/posizione.h"
#include "core/config.h"
#include "core/db.h"
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
  Connessione c = _db();
  auto righe = c.righe("SELECT file FROM nvr_registrazioni WHERE id=?", {rid});
  if (!righe.empty()) {
    std::string file = come_testo(righe[0][0]);
    std::error_code ec;
    if (!file.empty()) fs::remove(file, ec);
    _togli_cartelle_vuote(file, cfg.cartella);
  }
  c.esegui("DELETE FROM nvr_registrazioni WHERE id=?", {rid});
  c.commit();
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
// Answers how many segment files went.
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

  std::vector<std::string> condizioni;
  const Json& cam_json = campo(corpo, "cam");
  std::optional<std::int64_t> cam;
  if (pieno(cam_json)) {
    std::string testo = testo_di(cam_json);
    if (!solo_cifre(testo)) return errore_json("Telecamera non valida", 400);
    cam = intero(Json(testo));
    condizioni.push_back("cam_id=?");
  }
  const Json& giorno_json = campo(corpo, "giorno");
  std::optional<std::pair<double, double>> giorno;
  if (pieno(giorno_json)) {
    giorno =
        giorno_json.is_string() ? _intervallo_giorno(giorno_json.get<std::string>()) : std::nullopt;
    if (!giorno) return errore_json("Giorno non valido", 400);
    condizioni.push_back("inizio >= ? AND inizio < ?");
  }
  bool tutto = pieno(campo(corpo, "tutto"));
  if (condizioni.empty() && !tutto) return errore_json("Indica cosa cancellare", 400);

  std::vector<Valore> parametri;
  if (cam && giorno)
    parametri = {*cam, giorno->first, giorno->second};
  else if (cam)
    parametri = {*cam};
  else if (giorno)
    parametri = {giorno->first, giorno->second};
  std::string sql = "SELECT id, file, cam_id FROM nvr_registrazioni";
  for (std::size_t i = 0; i < condizioni.size(); ++i)
    sql += (i ? " AND " : " WHERE ") + condizioni[i];
  std::vector<Riga> righe;
  {
    Connessione c = _db();
    righe = c.righe(sql, parametri);
  }

  std::set<CamId> camere;
  for (const Riga& riga : righe) camere.insert(come_intero(riga[2]));
  if (tutto) {
    for (const auto& [id, p] : registratori_in_corso()) camere.insert(id);
  }
  int file = 0;
  if (!camere.empty()) {
    std::vector<Camera> cams = _telecamere();
    auto senza_giri = blocca_giri();
    for (CamId id : camere) _ferma(id, "archivio svuotato");
    file += svuota_in_corso(cfg, camere, cams);
  }

  for (const Riga& riga : righe) {
    std::string percorso = come_testo(riga[1]);
    std::error_code ec;
    if (fs::remove(percorso, ec)) {
      ++file;
    } else if (ec && ec != std::errc::no_such_file_or_directory) {
      _log("non riesco a cancellare " + percorso + ": " + ec.message());
    }
    _togli_cartelle_vuote(percorso, cfg.cartella);
  }

  {
    Connessione c = _db();
    for (const Riga& riga : righe)
      c.esegui("DELETE FROM nvr_registrazioni WHERE id=?", {come_intero(riga[0])});
    if (tutto) {
      c.esegui("DELETE FROM nvr_eventi");
    } else if (cam && giorno) {
      c.esegui("DELETE FROM nvr_eventi WHERE cam_id=? AND ts >= ? AND ts < ?",
               {*cam, giorno->first, giorno->second});
    } else if (cam) {
      c.esegui("DELETE FROM nvr_eventi WHERE cam_id=?", {*cam});
    } else if (giorno) {
      c.esegui("DELETE FROM nvr_eventi WHERE ts >= ? AND ts < ?", {giorno->first, giorno->second});
    }
    c.commit();
  }
  _giro_sicuro();
  return _json(Json{
      {"status", "success"}, {"voci", static_cast<std::int64_t>(righe.size())}, {"file", file}});
}

}  // namespace nvr
