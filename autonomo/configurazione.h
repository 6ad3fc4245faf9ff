// The configuration file of the installed program (/etc/nvr/nvr.conf): one `chiave = valore`
// per line, `#` starts a comment line, blank lines are ignored, an empty value leaves the key
// unset. Command-line options win over the file.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/esito.h"

namespace nvr::autonomo {

// What the file sets; a key it does not name stays empty.
struct ValoriConfigurazione {
  std::optional<std::string> indirizzo;  // IPv4 address to listen on
  std::optional<int> porta;              // 1..65535
  std::optional<std::string> dati;       // absolute path of the data folder
  std::optional<std::string> fuso;       // IANA name; whether the system knows it is checked later
  std::optional<std::string> tls_cert;   // absolute paths, both or neither
  std::optional<std::string> tls_chiave;
};

// Pure. `nome` is the file's path, used only in messages. Errore (codice 2) with one line for the
// user naming the key: "Configurazione <nome>, chiave porta: <reason>", or the line when it has
// no key: "Configurazione <nome>, riga <n>: <reason>" (no '=', an unknown or repeated key).
Esito<ValoriConfigurazione> interpreta_configurazione(std::string_view testo,
                                                      const std::string& nome);

// Reads `file` (blocks on the disk) and interprets it. Errore for a file that cannot be read:
// "Configurazione <file> non leggibile: <reason>".
Esito<ValoriConfigurazione> leggi_configurazione(const std::string& file);

// The prefix that names a key in the messages above, for checks made after reading (the zone,
// the data folder): "Configurazione <nome>, chiave <chiave>: ".
std::string prefisso_chiave(const std::string& nome, const std::string& chiave);

}  // namespace nvr::autonomo
