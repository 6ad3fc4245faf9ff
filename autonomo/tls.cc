#include "autonomo/tls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

namespace nvr::autonomo {

namespace {

template <class T, void (*libera)(T*)>
struct Liberatore {
  void operator()(T* p) const { libera(p); }
};
using Bio = std::unique_ptr<BIO, Liberatore<BIO, BIO_free_all>>;
using Certificato = std::unique_ptr<X509, Liberatore<X509, X509_free>>;
using Chiave = std::unique_ptr<EVP_PKEY, Liberatore<EVP_PKEY, EVP_PKEY_free>>;
using Numero = std::unique_ptr<BIGNUM, Liberatore<BIGNUM, BN_free>>;
using Estensione = std::unique_ptr<X509_EXTENSION, Liberatore<X509_EXTENSION, X509_EXTENSION_free>>;

constexpr long kSecondiValidita = 10L * 365 * 24 * 3600;

// A file's whole text; the error's codice is the errno of the failed call.
Esito<std::string> leggi_file(const std::string& percorso) {
  const int fd = ::open(percorso.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Errore{errno, std::strerror(errno)};
  std::string testo;
  char b[16384];
  ssize_t n;
  while ((n = ::read(fd, b, sizeof b)) > 0) testo.append(b, static_cast<std::size_t>(n));
  const int errore = errno;
  ::close(fd);
  if (n < 0) return Errore{errore, std::strerror(errore)};
  return testo;
}

// Why a file could not be read, in the user's words.
std::string perche(const Errore& e) {
  switch (e.codice) {
    case ENOENT:
      return " (non esiste)";
    case EACCES:
    case EPERM:
      return " (permesso negato)";
    case EISDIR:
      return " (e' una cartella)";
    default:
      return "";
  }
}

// Never asks for a password on the terminal: an encrypted key simply fails to load.
int nessuna_password(char*, int, int, void*) { return -1; }

Bio bio_di(const std::string& testo) {
  return Bio(BIO_new_mem_buf(testo.data(), static_cast<int>(testo.size())));
}

std::string testo_di(BIO* b) {
  char* dati = nullptr;
  const long n = BIO_get_mem_data(b, &dati);
  return n > 0 ? std::string(dati, static_cast<std::size_t>(n)) : "";
}

// Reads and checks a pair of files. Codice ENOENT: a file is missing; EINVAL: present but not a
// usable pair; anything else: a file could not be read.
Esito<MaterialeTls> carica(const std::string& cert, const std::string& chiave) {
  auto testo_cert = leggi_file(cert);
  if (!testo_cert)
    return Errore{testo_cert.errore().codice,
                  "File del certificato TLS non leggibile: " + cert + perche(testo_cert.errore())};
  auto testo_chiave = leggi_file(chiave);
  if (!testo_chiave)
    return Errore{testo_chiave.errore().codice,
                  "File della chiave TLS non leggibile: " + chiave + perche(testo_chiave.errore())};
  Bio bc = bio_di(testo_cert.valore());
  Certificato x(PEM_read_bio_X509(bc.get(), nullptr, nullptr, nullptr));
  if (!x) return Errore{EINVAL, "File del certificato TLS non valido (serve un PEM): " + cert};
  Bio bk = bio_di(testo_chiave.valore());
  Chiave k(PEM_read_bio_PrivateKey(bk.get(), nullptr, nessuna_password, nullptr));
  if (!k)
    return Errore{EINVAL,
                  "File della chiave TLS non valido (serve un PEM senza password): " + chiave};
  if (X509_check_private_key(x.get(), k.get()) != 1)
    return Errore{EINVAL, "La chiave TLS " + chiave + " non corrisponde al certificato " + cert};
  // The server's library reads PKCS#8 without a password for sure, whatever the file held.
  Bio uscita(BIO_new(BIO_s_mem()));
  if (!uscita ||
      PEM_write_bio_PrivateKey(uscita.get(), k.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
    return Errore{EINVAL, "File della chiave TLS non valido: " + chiave};
  return MaterialeTls{testo_cert.valore(), testo_di(uscita.get()), cert};
}

// Writes `testo` to `percorso` through a temporary file and a rename: a crash leaves the old
// file or the new one, never half of one. `modo` holds from the first byte written.
Esito<bool> scrivi_file(const std::string& percorso, const std::string& testo, mode_t modo) {
  const std::string provvisorio = percorso + ".nuovo";
  ::unlink(provvisorio.c_str());
  const int fd =
      ::open(provvisorio.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, modo);
  if (fd < 0) return Errore{errno, std::strerror(errno)};
  bool ok = ::fchmod(fd, modo) == 0;  // the umask may have taken bits away
  for (std::size_t fatto = 0; ok && fatto < testo.size();) {
    const ssize_t n = ::write(fd, testo.data() + fatto, testo.size() - fatto);
    ok = n > 0;
    if (ok) fatto += static_cast<std::size_t>(n);
  }
  ok = ok && ::fsync(fd) == 0;
  const int errore = errno;
  ::close(fd);
  if (ok && ::rename(provvisorio.c_str(), percorso.c_str()) == 0) return true;
  const int finale = ok ? errno : errore;
  ::unlink(provvisorio.c_str());
  return Errore{finale, std::strerror(finale)};
}

// The names a browser on this machine or on the home network may use to reach it.
std::string nomi_alternativi() {
  std::string nomi = "DNS:localhost,IP:127.0.0.1,IP:::1";
  char macchina[256] = "";
  if (::gethostname(macchina, sizeof macchina - 1) == 0 && macchina[0]) {
    std::string nome = macchina;
    const bool valido = nome.find_first_not_of(
                            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                            "0123456789-.") == std::string::npos;
    if (valido && nome != "localhost") {
      nomi += ",DNS:" + nome;
      if (nome.find('.') == std::string::npos) nomi += ",DNS:" + nome + ".local";
    }
  }
  // The addresses the machine has now, so that a phone typing the LAN address sees a
  // certificate made for it (an address that changes later costs only the usual warning).
  ifaddrs* interfacce = nullptr;
  if (::getifaddrs(&interfacce) == 0) {
    for (ifaddrs* i = interfacce; i; i = i->ifa_next) {
      if (!i->ifa_addr || (i->ifa_flags & IFF_LOOPBACK)) continue;
      char testo[INET6_ADDRSTRLEN] = "";
      const int famiglia = i->ifa_addr->sa_family;
      const void* a = nullptr;
      if (famiglia == AF_INET) a = &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr;
      if (famiglia == AF_INET6) {
        const auto* a6 = reinterpret_cast<sockaddr_in6*>(i->ifa_addr);
        if (IN6_IS_ADDR_LINKLOCAL(&a6->sin6_addr)) continue;  // needs a zone: not for a URL
        a = &a6->sin6_addr;
      }
      if (a && ::inet_ntop(famiglia, a, testo, sizeof testo)) nomi += std::string(",IP:") + testo;
    }
    ::freeifaddrs(interfacce);
  }
  return nomi;
}

bool aggiungi_estensione(X509* x, int nid, const std::string& valore) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
  Estensione e(X509V3_EXT_conf_nid(nullptr, &ctx, nid, valore.c_str()));
  return e && X509_add_ext(x, e.get(), -1) == 1;
}

// A new key and a certificate for it signed by itself, both PEM; nothing when OpenSSL fails.
std::optional<MaterialeTls> crea_autofirmato() {
  Chiave k(EVP_EC_gen("P-256"));
  Certificato x(X509_new());
  Numero seriale(BN_new());
  if (!k || !x || !seriale) return std::nullopt;
  X509_NAME* nome = X509_get_subject_name(x.get());
  auto nome_ok = [&](const char* campo, const char* valore) {
    return X509_NAME_add_entry_by_txt(nome, campo, MBSTRING_ASC,
                                      reinterpret_cast<const unsigned char*>(valore), -1, -1,
                                      0) == 1;
  };
  const bool ok =
      X509_set_version(x.get(), 2) == 1 &&
      BN_rand(seriale.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
      BN_to_ASN1_INTEGER(seriale.get(), X509_get_serialNumber(x.get())) != nullptr &&
      // An hour back: a clock slightly behind on the phone must not see it as not yet valid.
      X509_gmtime_adj(X509_getm_notBefore(x.get()), -3600) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(x.get()), kSecondiValidita) != nullptr &&
      X509_set_pubkey(x.get(), k.get()) == 1 && nome_ok("O", "nvr") &&
      nome_ok("CN", "nvr videoregistratore") && X509_set_issuer_name(x.get(), nome) == 1 &&
      aggiungi_estensione(x.get(), NID_subject_alt_name, nomi_alternativi()) &&
      aggiungi_estensione(x.get(), NID_ext_key_usage, "serverAuth") &&
      aggiungi_estensione(x.get(), NID_subject_key_identifier, "hash") &&
      X509_sign(x.get(), k.get(), EVP_sha256()) > 0;
  if (!ok) return std::nullopt;
  Bio bc(BIO_new(BIO_s_mem())), bk(BIO_new(BIO_s_mem()));
  if (!bc || !bk || PEM_write_bio_X509(bc.get(), x.get()) != 1 ||
      PEM_write_bio_PrivateKey(bk.get(), k.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
    return std::nullopt;
  return MaterialeTls{testo_di(bc.get()), testo_di(bk.get()), ""};
}

Esito<MaterialeTls> autofirmato(const std::string& cartella_dati) {
  const std::string cert = file_certificato_autofirmato(cartella_dati);
  const std::string chiave = file_chiave_autofirmata(cartella_dati);
  auto esistente = carica(cert, chiave);
  // A missing or broken pair is made again; one that cannot be read is the user's to fix.
  if (esistente || (esistente.errore().codice != ENOENT && esistente.errore().codice != EINVAL))
    return esistente;
  const std::string cartella = std::filesystem::path(cert).parent_path();
  std::error_code ec;
  std::filesystem::create_directories(cartella, ec);
  if (ec || ::chmod(cartella.c_str(), 0700) != 0)
    return Errore{EIO, "Cartella " + cartella + " non utilizzabile per il certificato TLS: " +
                           (ec ? ec.message() : std::strerror(errno))};
  auto nuovo = crea_autofirmato();
  if (!nuovo) return Errore{EIO, "Certificato TLS autofirmato non creato: errore di OpenSSL"};
  // The key first: a certificate on disk always has its key beside it.
  if (auto e = scrivi_file(chiave, nuovo->chiave, 0600); !e)
    return Errore{EIO,
                  "File della chiave TLS non scrivibile: " + chiave + ": " + e.errore().messaggio};
  if (auto e = scrivi_file(cert, nuovo->certificato, 0644); !e)
    return Errore{EIO,
                  "File del certificato TLS non scrivibile: " + cert + ": " + e.errore().messaggio};
  nuovo->file_certificato = cert;
  return *nuovo;
}

}  // namespace

std::string file_certificato_autofirmato(const std::string& cartella_dati) {
  return cartella_dati + "/tls/certificato.pem";
}

std::string file_chiave_autofirmata(const std::string& cartella_dati) {
  return cartella_dati + "/tls/chiave.pem";
}

Esito<MaterialeTls> prepara_tls(const std::string& cert, const std::string& chiave,
                                bool autofirmato_se_manca, const std::string& cartella_dati) {
  if (!cert.empty() && chiave.empty())
    return Errore{EINVAL, "Manca --tls-chiave: serve insieme a --tls-cert"};
  if (cert.empty() && !chiave.empty())
    return Errore{EINVAL, "Manca --tls-cert: serve insieme a --tls-chiave"};
  if (!cert.empty()) {
    auto m = carica(cert, chiave);
    if (!m) return Errore{m.errore().codice, m.errore().messaggio};
    return m;
  }
  if (autofirmato_se_manca) return autofirmato(cartella_dati);
  return MaterialeTls{};
}

}  // namespace nvr::autonomo
