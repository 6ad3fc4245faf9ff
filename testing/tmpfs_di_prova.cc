#include "testing/tmpfs_di_prova.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace nvr::testing {

namespace fs = std::filesystem;

TmpfsDiProva::TmpfsDiProva(const std::string& opzioni, bool sola_lettura)
    : punto_(sopra_ / "tmpfs") {
  fs::create_directory(punto_);
  unsigned long flag = sola_lettura ? MS_RDONLY : 0;
  if (::mount("tmpfs", punto_.c_str(), "tmpfs", flag, opzioni.c_str()) != 0)
    errore_ = std::string("tmpfs non montabile: ") + std::strerror(errno);
}

TmpfsDiProva::~TmpfsDiProva() { ::umount2(punto_.c_str(), MNT_DETACH); }

void scrivi_byte(const std::string& percorso, long long byte) {
  fs::create_directories(fs::path(percorso).parent_path());
  std::ofstream f(percorso, std::ios::binary | std::ios::trunc);
  std::vector<char> blocco(1 << 20, '\0');
  for (long long resta = byte; resta > 0;) {
    long long n = std::min<long long>(resta, static_cast<long long>(blocco.size()));
    f.write(blocco.data(), n);
    resta -= n;
  }
  f.close();
  if (!f) throw std::runtime_error("scrittura non riuscita: " + percorso);
}

}  // namespace nvr::testing
