#include "testing/cartella_ammessa.h"

#include <stdlib.h>

#include <filesystem>

namespace nvr::testing {

namespace fs = std::filesystem;

CartellaAmmessa::CartellaAmmessa() {
  char modello[] = "/srv/nvr_prova_XXXXXX";
  if (::mkdtemp(modello)) percorso_ = modello;
}

CartellaAmmessa::~CartellaAmmessa() {
  if (percorso_.empty()) return;
  std::error_code ec;
  fs::remove_all(percorso_, ec);
}

}  // namespace nvr::testing
