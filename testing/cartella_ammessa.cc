#include "testing/cartella_ammessa.h"

#include <stdlib.h>
#include <sys/mount.h>

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

TmpfsIn::TmpfsIn(std::string punto, Modo modo) : punto_(std::move(punto)) {
  std::error_code ec;
  fs::create_directories(punto_, ec);
  unsigned long flag = modo == Modo::kSolaLettura ? MS_RDONLY : 0;
  montato_ = ::mount("tmpfs", punto_.c_str(), "tmpfs", flag, "size=1m,mode=0755") == 0;
}

TmpfsIn::~TmpfsIn() {
  if (montato_) ::umount2(punto_.c_str(), MNT_DETACH);
}

}  // namespace nvr::testing
