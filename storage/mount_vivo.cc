// Whether a mounted archive still answers. Kept apart from the other mount questions because it
// is the one that needs the USB drive listing.
#include <sys/statvfs.h>

#include <cerrno>
#include <system_error>

#include "storage/con_timeout.h"
#include "storage/montaggi.h"
#include "storage/usb.h"

namespace nvr {

bool _mount_vivo(const Json& dest, const std::string& mp) {
  if (campo(dest, "tipo") == "usb") {
    // A pulled drive may leave its mount in place, and statvfs there can still answer: only
    // the drive listing tells that it is gone.
    std::optional<Unita> u =
        _trova_unita(testo_o_vuoto(campo(dest, "dev")), testo_o_vuoto(campo(dest, "uuid")),
                     testo_o_vuoto(campo(dest, "etichetta")));
    if (!u || !u->montata) return false;
  }
  auto r = _con_timeout(
      [mp] {
        struct statvfs st {};
        if (::statvfs(mp.c_str(), &st) != 0)
          throw std::system_error(errno, std::generic_category());
        return true;
      },
      10);
  return r.ok();
}

}  // namespace nvr
