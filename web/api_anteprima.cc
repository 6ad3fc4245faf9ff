#include "web/api_anteprima.h"

#include <cmath>
#include <optional>
#include <string>

#include "archive/allineamento.h"
#include "archive/elenchi.h"
#include "core/config.h"
#include "core/json.h"
#include "engine/anteprime.h"
#include "web/parametri.h"

namespace nvr {

namespace {

bool camera_conosciuta(CamId cam) {
  for (const Camera& c : _telecamere())
    if (c.id == cam) return true;
  return camera_nell_indice(cam);
}

}  // namespace

Risposta api_anteprima(const Richiesta& r) {
  const std::optional<CamId> cam = telecamera_da_testo(r.parametro("cam"));
  if (!cam) return errore_json("Telecamera non valida", 400);
  if (!camera_conosciuta(*cam)) return errore_json("Telecamera non trovata", 404);
  const std::optional<double> t = secondi_da_testo(r.parametro("t"));
  if (!t)
    return errore_json("Parametro non valido: t sono secondi dal 1970", 400);
  if (!_archivio_presente(leggi_config()))
    return errore_json("Unità di archivio non collegata: collegala e riprova.", 409);
  Esito<std::string> foto = anteprima(*cam, *t);
  if (!foto) return errore_json(foto.errore().messaggio, foto.errore().codice);
  Risposta risposta;
  risposta.file = FileDaInviare{foto.valore(), "image/jpeg", false, ""};
  risposta.intestazioni = {{"Cache-Control", "private, max-age=86400"}};
  return risposta;
}

void registra_rotte_anteprima(AppWeb& app, const Guardia& login, const Guardia& admin) {
  Vista v = api_anteprima;
  if (admin) v = admin(std::move(v));
  if (login) v = login(std::move(v));
  app.add_url_rule("/api/anteprima", "anteprima", std::move(v), {"GET"});
}

}  // namespace nvr
