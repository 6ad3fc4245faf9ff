// Stand-ins for the few system tools this machine cannot provide for real (removable flags in
// lsblk, CIFS and NFS mounts): small shell programs in a folder placed first on PATH, which
// record what they were asked so that a test can check the exact command lines.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "testing/ambiente.h"

namespace nvr::testing {

// A folder first on PATH for the object's lifetime; PATH is restored at destruction. Tests that
// use it must not run concurrently with other code that reads PATH.
// `s` between single quotes, for a shell script.
std::string tra_apici(const std::string& s);

class Controfigure {
 public:
  Controfigure();
  ~Controfigure();
  Controfigure(const Controfigure&) = delete;
  Controfigure& operator=(const Controfigure&) = delete;

  const std::string& cartella() const { return cartella_.percorso(); }
  std::string operator/(const std::string& nome) const { return cartella_ / nome; }

  // Writes the executable program `nome` with the text `script` (a shell script).
  void programma(const std::string& nome, const std::string& script);

  // An lsblk that records its arguments and prints `json` whatever it is asked.
  void lsblk_fisso(const std::string& json);
  // The argument lines lsblk was called with, one per call.
  std::vector<std::string> chiamate_lsblk() const;

  // A mount that records each call's arguments (and, for CIFS, a copy of the credentials file
  // it was handed and its mode). CIFS and NFS calls answer as arranged with rispondi_mount, else
  // succeed without mounting anything; every other call runs the real /usr/bin/mount, so real
  // drives still mount. Also puts mount.cifs and mount.nfs on PATH, so the helpers look present.
  void mount_registratore();
  // Call number `n` (from 1) of mount answers exit code `codice` with `errore` on stderr.
  void rispondi_mount(int n, int codice, const std::string& errore);
  // Every recorded mount call, in order: its arguments (without the program name).
  std::vector<std::vector<std::string>> chiamate_mount() const;
  // The credentials file that call `n` was handed, as it read then, and its mode in octal
  // ("600"); absent when the call had none.
  std::optional<std::string> credenziali(int n) const;
  std::optional<std::string> modo_credenziali(int n) const;

 private:
  CartellaTemporanea cartella_;
  std::string path_prima_;
  bool path_c_era_ = false;
};

}  // namespace nvr::testing
