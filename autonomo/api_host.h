// The program's own API beside the recorder's: session, cameras, entity states, information;
// and the two guards it puts in front of every protected route.
//
// Every answer is a JSON object with "status" "success" or "error" (+ an Italian "message").
#pragma once

#include <memory>
#include <string>

#include "autonomo/accesso.h"
#include "autonomo/instradamento.h"
#include "autonomo/stati.h"
#include "core/host.h"

namespace nvr::autonomo {

// The name of the session cookie.
inline constexpr const char* kCookieSessione = "nvr_sessione";

struct ContestoHost {
  std::string db_file;
  std::string fuso;      // the IANA name of the zone in force
  std::string versione;  // the program's version, for /api/info
  std::shared_ptr<Accesso> accesso;
  std::shared_ptr<StatiEntita> stati;
  bool https = false;  // the server speaks TLS: the session cookie is sent only over it (Secure)
};

// login_required: without a valid session cookie, 401 "Accesso richiesto".
Guardia guardia_login(std::shared_ptr<Accesso> accesso);
// admin_required: 403 "Permesso negato" for a session that is not an administrator's. The one
// account is the administrator, so every valid session passes; without a session it also
// refuses, in case it is ever applied alone.
Guardia guardia_admin(std::shared_ptr<Accesso> accesso);

// Registers /api/sessione, /api/accesso and /api/uscita without guards, and /api/info,
// /api/telecamere[/<id>] and /api/stati behind login_required(admin_required(...)), and
// /metrics behind login or the metrics token (token_metriche). Handlers
// block on the database (cameras) and on the login slow-down (accesso). Throws what
// add_url_rule throws.
void registra_rotte_host(AppWeb& app, std::shared_ptr<const ContestoHost> c);

// Gives the recorder's segment route (registered by collega) its shortcut on the network thread:
// a segment whose file is known in memory is sent without a worker or the database, behind the
// same guards (which only look at the session in memory). Throws what aggiungi_scorciatoia
// throws.
void aggiungi_scorciatoie(Instradatore& rotte, std::shared_ptr<const ContestoHost> c);

}  // namespace nvr::autonomo
