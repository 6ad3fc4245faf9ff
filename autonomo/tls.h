// The certificate and key the server speaks HTTPS with: the administrator's own files, or a
// self-signed pair the program makes once in the data folder and reuses on every later start.
#pragma once

#include <string>

#include "core/esito.h"

namespace nvr::autonomo {

struct MaterialeTls {
  std::string certificato;       // PEM, the whole chain as the file holds it; empty: plain HTTP
  std::string chiave;            // PEM, unencrypted (re-written from whatever form the file had)
  std::string file_certificato;  // where it came from, for the log and for the clients to trust
  bool attivo() const { return !certificato.empty(); }
};

// Where the self-signed pair lives inside `cartella_dati`.
std::string file_certificato_autofirmato(const std::string& cartella_dati);
std::string file_chiave_autofirmata(const std::string& cartella_dati);

// - `cert` and `chiave` both given: reads and checks them (each a PEM file, the key not
//   protected by a password and matching the certificate). Wins over `autofirmato`.
// - neither given and `autofirmato`: the pair in <cartella_dati>/tls/ (folder 0700, key 0600),
//   made now (an EC P-256 key, valid 10 years, for localhost, this machine's name, the
//   loopback addresses and the machine's own addresses at that moment) when either file is
//   missing or they do not form a valid pair.
// - neither given and not `autofirmato`: an inactive MaterialeTls (plain HTTP).
// Errors are the one line for the user, e.g. "File del certificato TLS non leggibile: <path>",
// "File della chiave TLS non valido: <path>", "Manca --tls-chiave: serve insieme a --tls-cert".
// Reads and writes the disk; making a key takes a few milliseconds.
Esito<MaterialeTls> prepara_tls(const std::string& cert, const std::string& chiave,
                                bool autofirmato, const std::string& cartella_dati);

}  // namespace nvr::autonomo
