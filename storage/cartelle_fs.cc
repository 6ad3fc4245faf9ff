#include "storage/cartelle_fs.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "core/testi.h"
#include "storage/comando.h"
#include "storage/con_timeout.h"

namespace nvr {

namespace fs = std::filesystem;

std::pair<bool, std::string> _mkdir(const std::string& p) {
  std::error_code ec;
  fs::create_directories(p, ec);
  if (!ec && fs::is_directory(p, ec)) return {true, ""};
  if (!ec) ec = std::make_error_code(std::errc::file_exists);  // a file stands in the way
  if (ec == std::errc::permission_denied || ec == std::errc::operation_not_permitted) {
    RisultatoComando r = _radice({"mkdir", "-p", p}, 20);
    if (r.codice == 0) {
      (void)_intesta(p);
      return {true, ""};
    }
    std::string msg = spoglia(!r.err.empty() ? r.err : !r.out.empty() ? r.out : "");
    return {false, msg.empty() ? "mkdir non riuscito" : msg};
  }
  return {false, ec.message()};
}

bool _scrivibile(const std::string& p) {
  auto prova = _con_timeout(
      [p] {
        std::string modello = (fs::path(p) / ".zuna_nvr_XXXXXX").string();
        std::vector<char> nome(modello.begin(), modello.end());
        nome.push_back('\0');
        int fd = ::mkstemp(nome.data());
        if (fd < 0) throw std::system_error(errno, std::generic_category());
        ::close(fd);
        ::unlink(nome.data());
        return true;
      },
      8);
  return prova.ok() && prova.valore();
}

bool _sola_lettura(const std::string& p) {
  auto prova = _con_timeout(
      [p] {
        struct statvfs st;
        if (::statvfs(p.c_str(), &st) != 0) throw std::system_error(errno, std::generic_category());
        return (st.f_flag & ST_RDONLY) != 0;
      },
      8);
  return prova.ok() && prova.valore();
}

bool _intesta(const std::string& p) {
  if (_scrivibile(p)) return true;
  UtenteApp u = _utente_app();
  (void)_radice({"chown", std::to_string(u.uid) + ":" + std::to_string(u.gid), p}, 20);
  (void)_radice({"chmod", "u+rwx", p}, 20);
  return _scrivibile(p);
}

}  // namespace nvr
