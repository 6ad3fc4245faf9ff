// The program's start-up steps that can fail or that prepare a fresh machine: the data folder,
// the time zone, the first configuration and the demo camera.
#pragma once

#include <optional>
#include <string>

#include "core/esito.h"

namespace nvr::autonomo {

// Creates `cartella` when missing and proves it writable by creating and removing a file in it.
// Answers its absolute path, or Errore with the line for the user:
// "Cartella dei dati <path> non utilizzabile: <reason>". Blocks on the disk.
Esito<std::string> prepara_cartella_dati(const std::string& cartella);

// The IANA name of the zone to use: `scelto` when the system knows it, the machine's own zone
// when `scelto` is empty ("UTC" when the machine has none configured). Errore for an unknown
// name: "Fuso orario sconosciuto: <name> (esempio: --fuso Europe/Rome)".
Esito<std::string> fuso_da_usare(const std::string& scelto);

// When the stored configuration has no archive folder yet, stores `<dati>/archivio` as a local
// destination, so that a first start needs no configuration. Needs the recorder attached;
// database errors throw ErroreDb.
void configura_primo_avvio(const std::string& dati);

// Adds the demo camera "Demo" with stream `url` the first time (never again, even after the
// user removed it), or points the existing one at `url`, with `url_vivo` as its live-view
// stream; then switches recording on and enables that camera. Answers its id, or nothing when
// the user removed it. Needs the recorder attached; database errors throw ErroreDb.
std::optional<std::int64_t> prepara_demo(const std::string& db_file, const std::string& url,
                                         const std::string& url_vivo);

// A TCP port on 127.0.0.1 that was free a moment ago; 0 when none could be found.
int porta_libera_locale();

}  // namespace nvr::autonomo
