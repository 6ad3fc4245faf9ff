// A real tmpfs of a chosen size mounted in a temporary folder, for tests that run as root.
#pragma once

#include <string>

#include "testing/ambiente.h"

namespace nvr::testing {

class TmpfsDiProva {
 public:
  // Mounts a tmpfs with `opzioni` ("size=819200", "size=1m,mode=0755") on a fresh folder,
  // read-only when `sola_lettura`. errore() tells why it could not be mounted.
  explicit TmpfsDiProva(const std::string& opzioni, bool sola_lettura = false);
  // Unmounts it (lazily, so that a test's open file cannot keep it) if it is still mounted.
  ~TmpfsDiProva();
  TmpfsDiProva(const TmpfsDiProva&) = delete;
  TmpfsDiProva& operator=(const TmpfsDiProva&) = delete;

  bool montato() const { return errore_.empty(); }
  const std::string& errore() const { return errore_; }
  const std::string& percorso() const { return punto_; }
  std::string operator/(const std::string& nome) const { return punto_ + "/" + nome; }

 private:
  CartellaTemporanea sopra_;
  std::string punto_;
  std::string errore_;
};

// Writes `byte` zero bytes to `percorso` (creating its folders), so that they occupy real space.
void scrivi_byte(const std::string& percorso, long long byte);

}  // namespace nvr::testing
