#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>

#include "archive/indice.h"

namespace nvr {

namespace {

constexpr off_t TESTA = 65536;           // the recorder writes "moov" here when it can
constexpr off_t CODA = 4 * 1024 * 1024;  // ...and at the end when it finalises a segment

// Closes the descriptor on every path.
struct Descrittore {
  int fd;
  ~Descrittore() {
    if (fd >= 0) ::close(fd);
  }
};

// Whether "moov" occurs in the bytes [da, da + quanti) of `fd`; false on a read error.
bool contiene_moov(int fd, off_t da, off_t quanti) {
  std::string buf(static_cast<std::size_t>(quanti), '\0');
  std::size_t letti = 0;
  while (letti < buf.size()) {
    ssize_t n = ::pread(fd, buf.data() + letti, buf.size() - letti, da + static_cast<off_t>(letti));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;  // the file shrank meanwhile: look at what is there
    letti += static_cast<std::size_t>(n);
  }
  return std::string_view(buf.data(), letti).find("moov") != std::string_view::npos;
}

}  // namespace

bool _mp4_completo(const std::string& p) {
  Descrittore f{::open(p.c_str(), O_RDONLY | O_CLOEXEC)};
  if (f.fd < 0) return false;
  struct stat st {};
  if (::fstat(f.fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
  if (contiene_moov(f.fd, 0, std::min(TESTA, st.st_size))) return true;
  off_t da = std::max<off_t>(0, st.st_size - CODA);
  return contiene_moov(f.fd, da, st.st_size - da);
}

}  // namespace nvr
