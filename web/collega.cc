#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "archive/sommari.h"
#include "core/db.h"
#include "core/log.h"
#include "core/stato.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "storage/rete.h"
#include "web/api_config.h"
#include "web/api_elimina.h"
#include "web/api_registrazioni.h"
#include "web/api_stato.h"
#include "web/api_storage.h"
#include "web/collega.h"

namespace nvr {

namespace {

// The engine thread is detached, like a daemon: it must not keep the process alive, nor be
// joined at exit. Tests that stop it wait for this flag instead.
std::mutex motore_m;
std::condition_variable motore_cv;
bool motore_vivo = false;  // guarded by motore_m

}  // namespace

const std::vector<Rotta>& rotte() {
  static const std::vector<Rotta> tabella = {
      {"/api/nvr/config", "nvr_config", {"GET", "POST"}, api_config},
      {"/api/nvr/camera", "nvr_camera", {"POST"}, api_camera},
      {"/api/nvr/storage", "nvr_storage", {"GET"}, api_storage},
      {"/api/nvr/storage/monta", "nvr_monta", {"POST"}, api_monta},
      {"/api/nvr/storage/smonta", "nvr_smonta", {"POST"}, api_smonta},
      {"/api/nvr/cartelle", "nvr_cartelle", {"GET", "POST"}, api_cartelle},
      {"/api/nvr/stato", "nvr_stato", {"GET"}, api_stato},
      {"/api/nvr/installa_ffmpeg", "nvr_installa_ffmpeg", {"POST"}, api_installa_ffmpeg},
      {"/api/nvr/riassunto", "nvr_riassunto", {"GET"}, api_riassunto},
      {"/api/nvr/giorni", "nvr_giorni", {"GET"}, api_giorni},
      {"/api/nvr/registrazioni", "nvr_registrazioni", {"GET"}, api_registrazioni},
      {"/api/nvr/video/<int:rid>", "nvr_video", {"GET"}, api_video},
      {"/api/nvr/registrazione/<int:rid>", "nvr_elimina", {"DELETE"}, api_elimina_registrazione},
      {"/api/nvr/archivio", "nvr_archivio", {"GET"}, api_archivio},
      {"/api/nvr/registrazioni",
       "nvr_elimina_registrazioni",
       {"DELETE"},
       api_elimina_registrazioni},
  };
  return tabella;
}

void _su_sigterm() { _ferma_tutto("arresto del server"); }

bool collega(std::shared_ptr<Host> host) {
  if (!A.imposta_se_assente(host)) return false;
  if (!host || !host->app)
    throw std::runtime_error("collega(): il modulo passato non ha un oggetto app Flask");
  _init_db();
  costruisci_sommari_in_fondo();  // after an upgrade: the overview answers the old way meanwhile

  auto _admin = [&host](Vista f) -> Vista {
    if (!host->login_required) throw std::runtime_error("il modulo passato non ha login_required");
    if (!host->admin_required) throw std::runtime_error("il modulo passato non ha admin_required");
    return host->login_required(host->admin_required(std::move(f)));
  };
  for (const Rotta& r : rotte())
    host->app->add_url_rule(r.percorso, r.endpoint, _admin(r.gestore), r.metodi);

  if (host->registra_uscita)
    host->registra_uscita([] {
      _ferma_tutto("arresto del server");
      togli_credenziali_in_sospeso();
    });
  if (host->installa_sigterm) {
    try {
      host->installa_sigterm(_su_sigterm);
    } catch (...) {
      // Not on the main thread, or the host cannot install handlers: attach without one.
    }
  }

  {
    std::lock_guard l(motore_m);
    motore_vivo = true;
  }
  std::thread([] {
    pthread_setname_np(pthread_self(), "zn-nvr");
    _motore();
    std::lock_guard l(motore_m);
    motore_vivo = false;
    motore_cv.notify_all();
  }).detach();
  _log(std::string("modulo avviato (ffmpeg: ") + (ffmpeg_presente() ? "True" : "False") + ")");
  return true;
}

void attendi_fine_motore() {
  std::unique_lock l(motore_m);
  motore_cv.wait(l, [] { return !motore_vivo; });
}

}  // namespace nvr
