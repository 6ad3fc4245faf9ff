#include "testing/cartella_ammessa.h"

#include <stdlib.h>

#include <filesystem>

namespace nvr::testing {

CartellaAmmessa::CartellaAmmessa() {
  char modello[] = "/srv/nvr_prova_XXXXXX";
  if (::mkdtemp(modello)) percorso_ = modello;
}

CartellaAmmessa::~CartellaAmmessa() {
  if (percorso_.empty()) return;
  std::error_code ec;
  std::filesystem::remove_all(percorso_, ec);
}

}  // namespace nvr::testing
