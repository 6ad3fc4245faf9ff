#include "autonomo/configurazione.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

namespace nvr::autonomo {

namespace {

std::string_view senza_spazi(std::string_view s) {
  const auto primo = s.find_first_not_of(" \t\r");
  if (primo == std::string_view::npos) return {};
  const auto ultimo = s.find_last_not_of(" \t\r");
  return s.substr(primo, ultimo - primo + 1);
}

// A value in double quotes keeps its spaces; the quotes go.
std::string valore_di(std::string_view s) {
  s = senza_spazi(s);
  if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
  return std::string(s);
}

// The reason a value is wrong for its key, or "" when it is right.
std::string controlla(const std::string& chiave, const std::string& v, ValoriConfigurazione& c) {
  if (chiave == "indirizzo") {
    in_addr a{};
    if (::inet_pton(AF_INET, v.c_str(), &a) != 1)
      return "non e' un indirizzo IPv4: " + v + " (esempio: 0.0.0.0 per tutti gli indirizzi)";
    c.indirizzo = v;
  } else if (chiave == "porta") {
    const bool cifre = !v.empty() && v.size() <= 5 && v.find_first_not_of("0123456789") == v.npos;
    const int n = cifre ? std::stoi(v) : 0;
    if (n < 1 || n > 65535) return "deve essere un numero da 1 a 65535, non " + v;
    c.porta = n;
  } else if (chiave == "fuso") {
    if (v.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_+-/") !=
        v.npos)
      return "non e' un nome di fuso orario: " + v + " (esempio: Europe/Rome)";
    c.fuso = v;
  } else {  // dati, tls_cert, tls_chiave: paths
    if (v.front() != '/') return "serve un percorso assoluto, non " + v;
    (chiave == "dati" ? c.dati : chiave == "tls_cert" ? c.tls_cert : c.tls_chiave) = v;
  }
  return "";
}

}  // namespace

std::string prefisso_chiave(const std::string& nome, const std::string& chiave) {
  return "Configurazione " + nome + ", chiave " + chiave + ": ";
}

Esito<ValoriConfigurazione> interpreta_configurazione(std::string_view testo,
                                                      const std::string& nome) {
  static const std::set<std::string> kChiavi = {"indirizzo", "porta",    "dati",
                                                "fuso",      "tls_cert", "tls_chiave"};
  auto errore_riga = [&](int n, const std::string& perche) {
    return Errore{2, "Configurazione " + nome + ", riga " + std::to_string(n) + ": " + perche};
  };
  ValoriConfigurazione c;
  std::set<std::string> viste;
  int n = 0;
  while (!testo.empty()) {
    const auto fine = testo.find('\n');
    const std::string_view riga = senza_spazi(testo.substr(0, fine));
    testo = fine == std::string_view::npos ? std::string_view{} : testo.substr(fine + 1);
    ++n;
    if (riga.empty() || riga.front() == '#') continue;
    const auto uguale = riga.find('=');
    if (uguale == std::string_view::npos)
      return errore_riga(n, "manca '=' (la forma e' chiave = valore)");
    const std::string chiave(senza_spazi(riga.substr(0, uguale)));
    if (!kChiavi.count(chiave)) return errore_riga(n, "chiave sconosciuta: " + chiave);
    if (!viste.insert(chiave).second) return errore_riga(n, "chiave " + chiave + " ripetuta");
    const std::string v = valore_di(riga.substr(uguale + 1));
    if (v.empty()) continue;
    if (std::string perche = controlla(chiave, v, c); !perche.empty())
      return Errore{2, prefisso_chiave(nome, chiave) + perche};
  }
  // One TLS file without the other cannot work: say which one is missing.
  if (c.tls_cert && !c.tls_chiave)
    return Errore{2, prefisso_chiave(nome, "tls_chiave") + "manca (tls_cert e' impostata)"};
  if (c.tls_chiave && !c.tls_cert)
    return Errore{2, prefisso_chiave(nome, "tls_cert") + "manca (tls_chiave e' impostata)"};
  return c;
}

Esito<ValoriConfigurazione> leggi_configurazione(const std::string& file) {
  auto non_leggibile = [&](int e) {
    return Errore{2, "Configurazione " + file + " non leggibile: " + std::strerror(e)};
  };
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return non_leggibile(errno);
  std::string testo;
  char blocco[4096];
  ssize_t letti;
  while ((letti = ::read(fd, blocco, sizeof blocco)) > 0) testo.append(blocco, letti);
  const int e = errno;
  ::close(fd);
  if (letti < 0) return non_leggibile(e);
  return interpreta_configurazione(testo, file);
}

}  // namespace nvr::autonomo
