// The program's own camera list: the table tapo_cameras (id, name, rtsp_url) of the shared
// database, which the recorder reads to know the cameras, plus the program's own column
// url_vivo: an optional lighter stream for live view (recording always uses rtsp_url).
//
// Every call opens and closes its own connection; database errors throw ErroreDb. Expected
// failures come back as Errore with the HTTP status in codice and the message for the user.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/esito.h"

namespace nvr::autonomo {

struct TelecameraHost {
  std::int64_t id = 0;
  std::string nome;
  std::string url;
  std::string url_vivo;  // "" when live view uses `url`
};

// Creates the table when missing, and its url_vivo column when an older table lacks it.
void crea_tabella_telecamere(const std::string& db_file);

// All cameras, by ascending id.
std::vector<TelecameraHost> elenco_telecamere(const std::string& db_file);

// Adds a camera and answers its id. Errore 400 "Il nome della telecamera e' obbligatorio" for a
// blank name, 400 "Indirizzo del flusso non valido" for a URL that does not begin (any letter
// case) with rtsp://, rtsps://, http:// or https://.
Esito<std::int64_t> aggiungi_telecamera(const std::string& db_file, const std::string& nome,
                                        const std::string& url);

// Changes the name and/or the URL given (same checks); Errore 404 "Telecamera non trovata".
Esito<bool> modifica_telecamera(const std::string& db_file, std::int64_t id,
                                const std::optional<std::string>& nome,
                                const std::optional<std::string>& url);

// Sets the live-view stream of the camera ("" or blank: live view uses the main address); same
// address check as above, Errore 404 "Telecamera non trovata".
Esito<bool> imposta_url_vivo(const std::string& db_file, std::int64_t id,
                             const std::string& url_vivo);

// Removes the camera; Errore 404 "Telecamera non trovata". Its recordings and its recorder
// settings stay: the recorder keeps settings of cameras the host no longer lists.
Esito<bool> elimina_telecamera(const std::string& db_file, std::int64_t id);

}  // namespace nvr::autonomo
