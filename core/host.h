// What a host application offers the recorder when it attaches it.
//
// Every member may be missing (an empty function or pointer), exactly as an attribute may be
// missing on a host module; each user says what it does then.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/json.h"
#include "core/richiesta.h"

namespace nvr {

using Vista = std::function<Risposta(const Richiesta&)>;
using Guardia = std::function<Vista(Vista)>;

// The host's web application: the recorder only registers routes on it.
class AppWeb {
 public:
  virtual ~AppWeb() = default;
  // `percorso` may hold one "<int:rid>" segment, passed to the view as Richiesta::rid.
  // Registration errors are thrown to the caller of collega.
  virtual void add_url_rule(const std::string& percorso, const std::string& endpoint, Vista vista,
                            const std::vector<std::string>& metodi) = 0;
};

struct Host {
  std::shared_ptr<AppWeb> app;
  Guardia login_required;  // outer guard of every route
  Guardia admin_required;  // inner guard of every route
  std::string DB_FILE;     // the SQLite file shared with the host

  // The IANA name of the host's current zone ("tz" of its zone setting), or nothing for
  // machine local time. Called whenever the time of day matters; may throw.
  std::function<std::optional<std::string>()> _zn_fuso;

  // Current states of the home-automation entities: an object entity id -> state (any JSON
  // value). May throw; a failure counts as "no states".
  std::function<Json()> get_all_internal_states;
  // The host's own reading of a state; the recorder compares its text with "on". May throw.
  std::function<Json(const Json&)> normalize_state;

  // Arranges for `azione` to run when the process exits normally.
  std::function<void(std::function<void()>)> registra_uscita;
  // Installs `gestore` for SIGTERM. `gestore` stops the recorders and then answers whether the
  // host's previous handler should run; the host runs it, or exits with status 0 when there was
  // none (or it was the default or the ignore disposition). May throw when the host cannot
  // install signal handlers from this thread; the failure is then ignored.
  std::function<void(std::function<void()> gestore)> installa_sigterm;
};

}  // namespace nvr
