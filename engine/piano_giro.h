// What one engine pass must do, decided from a snapshot of the state and the time alone.
//
// The pass (motore.cc) gathers the situation — configuration, cameras, what the archive check
// and the ffmpeg check said, the running recorders, their failures, each camera's recording
// decision, the job time stamps — asks pianifica_giro, and carries the plan out in order.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/config.h"
#include "engine/registratori.h"

namespace nvr {

// One running recorder as the planner sees it.
struct VistaRegistratore {
  std::string cartella;  // the in-progress folder it writes into
  int segmento = 300;    // the segment length it was started with
};

// When each periodic job last ran (epoch seconds; 0 at start, so every job runs at once).
struct TempiLavori {
  double indice = 0.0;
  double profondo = 0.0;
  double allineamento = 0.0;
  double pulizia = 0.0;
};

struct Situazione {
  Config cfg;
  std::vector<Camera> cams;
  std::string non_pronto;  // the archive check's message; "" when ready (or recording is off)
  bool ffmpeg = true;      // ffmpeg is installed
  std::map<CamId, VistaRegistratore> registratori;
  std::map<CamId, ErroreRecente> errori;
  // (must record, reason) of each enabled camera with an address, from _deve_registrare.
  std::map<CamId, std::pair<bool, std::string>> decisioni;
  TempiLavori tempi;
  double adesso = 0.0;
};

enum class Mossa {
  avvia,    // start the recorder with `motivo`
  ferma,    // stop it, logging `perche`
  riavvia,  // stop it (`perche`), then start it again with `motivo`
  conferma  // keep it running; its reason is now `motivo`
};

struct Azione {
  CamId cam = 0;
  Mossa mossa = Mossa::conferma;
  std::string motivo;              // "continua", "orario" or "evento" (avvia, riavvia, conferma)
  std::string perche;              // the stop's reason in the log (ferma, riavvia)
  bool cartella_cambiata = false;  // riavvia: the old folder must still be drained
  bool operator==(const Azione&) const = default;
};

struct Lavori {
  bool indice = false;
  bool profondo = false;  // with indice: also adopt and retry what lies in the day folders
  bool allineamento = false;
  bool pulizia = false;
  bool operator==(const Lavori&) const = default;
};

struct PianoGiro {
  std::string problema;      // the status's problem text after the pass ("" when all is well)
  std::string log_problema;  // logged when `problema` differs from the previous one
  std::vector<Azione> azioni;
  Lavori lavori;
};

// Pure. Recording off: every recorder stops ("NVR disattivato") and only the index runs (when a
// folder is set). Archive not ready: every recorder stops with its message, no job runs. No
// ffmpeg: nothing starts or stops, no job runs. Otherwise recorders of removed cameras stop
// ("telecamera rimossa"), of disabled ones or those without address ("telecamera disattivata"),
// of cameras whose decision turned false ("fuori orario/evento finito"); a camera that must
// record starts unless its last failure is younger than min(5 x failures, 60) s; a running one
// whose folder or segment length no longer match restarts ("cartella cambiata", "nuova durata
// degli spezzoni"). Jobs: index every 10 s (deep every 600 s), reconciliation every 300 s,
// retention every 3600 s.
PianoGiro pianifica_giro(const Situazione& s);

// Pure: the back-off after `errore` (min(5 x failures, 60) s) has not yet run out at `adesso`.
bool in_attesa(const ErroreRecente& errore, double adesso);

}  // namespace nvr
