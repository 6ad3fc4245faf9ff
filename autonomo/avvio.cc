#include "autonomo/avvio.h"

#include <arpa/inet.h>
#include <date/tz.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "autonomo/telecamere_host.h"
#include "core/config.h"
#include "core/db.h"
#include "core/tempo.h"

namespace nvr::autonomo {

namespace fs = std::filesystem;

Esito<std::string> prepara_cartella_dati(const std::string& cartella) {
  std::error_code ec;
  fs::path assoluta = fs::absolute(cartella, ec);
  if (!ec) fs::create_directories(assoluta, ec);
  if (!ec && !fs::is_directory(assoluta, ec)) ec = std::make_error_code(std::errc::not_a_directory);
  if (!ec) {
    std::string modello = (assoluta / ".nvr-prova-XXXXXX").string();
    const int fd = ::mkstemp(modello.data());
    if (fd < 0) {
      ec = std::error_code(errno, std::generic_category());
    } else {
      ::close(fd);
      ::unlink(modello.c_str());
    }
  }
  if (ec)
    return Errore{ec.value(), "Cartella dei dati " + assoluta.lexically_normal().string() +
                                  " non utilizzabile: " + ec.message()};
  return assoluta.lexically_normal().string();
}

Esito<std::string> fuso_da_usare(const std::string& scelto) {
  if (!scelto.empty()) {
    if (!zona_di(scelto))
      return Errore{2, "Fuso orario sconosciuto: " + scelto + " (esempio: --fuso Europe/Rome)"};
    return scelto;
  }
  try {
    return std::string(date::current_zone()->name());
  } catch (...) {
    return std::string("UTC");  // a machine without /etc/localtime runs on UTC
  }
}

void configura_primo_avvio(const std::string& dati) {
  Config cfg = leggi_config();
  if (!cfg.cartella.empty()) return;
  cfg.cartella = (fs::path(dati) / "archivio").string();
  cfg.destinazione = Json{{"tipo", "locale"}};
  _salva_config(cfg);
}

std::optional<std::int64_t> prepara_demo(const std::string& db_file, const std::string& url,
                                         const std::string& url_vivo) {
  std::optional<std::int64_t> id;
  {
    Connessione c(db_file);
    c.esegui(
        "CREATE TABLE IF NOT EXISTS nvr_autonomo_impostazioni (chiave TEXT PRIMARY KEY, valore "
        "TEXT)");
    c.commit();
    auto righe = c.righe("SELECT valore FROM nvr_autonomo_impostazioni WHERE chiave='demo'");
    if (!righe.empty()) id = come_intero(righe[0][0]);
  }
  if (!id) {
    auto nuovo = aggiungi_telecamera(db_file, "Demo", url);
    if (!nuovo) return std::nullopt;  // cannot happen: the name and URL are ours
    id = nuovo.valore();
    Connessione c(db_file);
    c.esegui("INSERT OR REPLACE INTO nvr_autonomo_impostazioni (chiave, valore) VALUES ('demo', ?)",
             {std::to_string(*id)});
    c.commit();
  } else if (!modifica_telecamera(db_file, *id, std::nullopt, url)) {
    return std::nullopt;  // removed by the user: it stays removed
  }
  (void)imposta_url_vivo(db_file, *id, url_vivo);
  for (const Camera& cam : _telecamere())
    if (cam.id == *id) {
      Json imp = cam.come_json();
      imp["attiva"] = true;
      _salva_camera(cam.id, imp);
    }
  Config cfg = leggi_config();
  cfg.attivo = 1;
  _salva_config(cfg);
  return id;
}

int porta_libera_locale() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in ind{};
  ind.sin_family = AF_INET;
  ind.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t lunghezza = sizeof(ind);
  int porta = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&ind), sizeof(ind)) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&ind), &lunghezza) == 0)
    porta = ntohs(ind.sin_port);
  ::close(fd);
  return porta;
}

}  // namespace nvr::autonomo
