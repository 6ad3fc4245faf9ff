#include "storage/rete.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>

#include "core/nomi.h"
#include "core/processo.h"
#include "core/stato.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "storage/testi.h"

namespace nvr {

namespace {

namespace fs = std::filesystem;

std::string testo(const Json& dest, const std::string& chiave) {
  return testo_o_vuoto(campo(dest, chiave));
}

bool server_valido(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s) {
    bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

std::string senza_barre(const std::string& s) {
  auto a = s.find_first_not_of('/');
  if (a == std::string::npos) return "";
  return s.substr(a, s.find_last_not_of('/') - a + 1);
}

std::string senza_a_capo(std::string s) {
  std::erase(s, '\n');
  return s;
}

bool helper_presente(const std::string& nome) {
  std::error_code ec;
  return programma_presente(nome) || fs::exists("/sbin/" + nome, ec);
}

// The credentials files that exist right now, so the exit path can remove them too.
std::mutex credenziali_m;
// Never destroyed: the exit path may run after static destructors.
std::set<std::string>* credenziali_aperte = new std::set<std::string>;  // credenziali_m

// The SMB credentials file: created exclusively with a name nobody else can have chosen,
// readable by its owner only, and removed when the object goes, whatever happened meanwhile.
class FileCredenziali {
 public:
  FileCredenziali() = default;
  ~FileCredenziali() {
    if (percorso_.empty()) return;
    ::unlink(percorso_.c_str());
    std::lock_guard l(credenziali_m);
    credenziali_aperte->erase(percorso_);
  }
  FileCredenziali(const FileCredenziali&) = delete;
  FileCredenziali& operator=(const FileCredenziali&) = delete;

  // Writes `testo` into a new file; answers "" or why it could not.
  std::string scrivi(const std::string& testo) {
    std::error_code ec;
    fs::path cartella = fs::temp_directory_path(ec);
    if (ec) cartella = "/tmp";
    std::string modello = (cartella / "zuna_nvr_XXXXXX.cred").string();
    // mkstemps opens with O_CREAT | O_EXCL and mode 0600.
    int fd = ::mkstemps(modello.data(), 5);
    if (fd < 0) return std::strerror(errno);
    percorso_ = modello;
    {
      std::lock_guard l(credenziali_m);
      credenziali_aperte->insert(percorso_);
    }
    std::string errore;
    if (::fchmod(fd, 0600) != 0) errore = std::strerror(errno);
    for (std::size_t fatto = 0; errore.empty() && fatto < testo.size();) {
      ssize_t n = ::write(fd, testo.data() + fatto, testo.size() - fatto);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0)
        errore = n < 0 ? std::strerror(errno) : "scrittura incompleta";
      else
        fatto += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0 && errore.empty()) errore = std::strerror(errno);
    return errore;
  }
  const std::string& percorso() const { return percorso_; }

 private:
  std::string percorso_;
};

// Failures that an older protocol version cannot cure: the server is unreachable or refuses
// the credentials.
bool inutile_riprovare(const std::string& e) {
  std::string low = minuscolo(e);
  for (const char* s : {"error(112)", "error(113)", "error(110)", "host is down", "no route",
                        "error(13)", "permission denied"})
    if (low.find(s) != std::string::npos) return true;
  return false;
}

}  // namespace

void togli_credenziali_in_sospeso() {
  std::set<std::string> da_togliere;
  {
    std::lock_guard l(credenziali_m);
    da_togliere.swap(*credenziali_aperte);
  }
  for (const auto& p : da_togliere) ::unlink(p.c_str());
}

std::tuple<bool, std::string, std::string> monta_rete(const Json& dest) {
  std::string proto = minuscolo(testo(dest, "proto"));
  if (proto.empty()) proto = "smb";
  std::string server = spoglia(testo(dest, "server"));
  std::string share = senza_barre(spoglia(testo(dest, "share")));
  if (server.empty() || share.empty())
    return {false, "Servono indirizzo del server e nome della cartella condivisa", ""};
  // A plain name or address only: "//nas" or "nas:/x" would change what mount is asked.
  if (!server_valido(server)) return {false, "Indirizzo del server non valido", ""};

  std::string mp = radice_montaggi() + "/rete_" + _nome_sicuro(server + "_" + share);
  auto [creata, perche] = _mkdir(mp);
  if (!creata) return {false, "Non riesco a creare " + mp + ": " + perche, ""};
  if (_ismount(mp)) return {true, "Gia' montata", mp};

  if (proto == "nfs") {
    if (!helper_presente("mount.nfs"))
      return {false, "Manca il supporto NFS: sul server esegui  sudo apt-get install -y nfs-common",
              ""};
    // Soft, with a 5 s request time-out and 2 retransmissions: a dropped network makes file
    // operations fail instead of hanging the recorder for ever.
    RisultatoComando r = _radice(
        {"mount", "-t", "nfs", "-o", "soft,timeo=50,retrans=2", server + ":/" + share, mp}, 40);
    if (r.codice != 0) return {false, "mount: " + _spiega_mount(detto(r, "errore")), ""};
  } else {
    if (!helper_presente("mount.cifs"))
      return {false, "Manca il supporto SMB: sul server esegui  sudo apt-get install -y cifs-utils",
              ""};
    std::string utente = spoglia(testo(dest, "utente"));
    std::string password = testo(dest, "password");
    UtenteApp app = _utente_app();
    std::string opzioni = "uid=" + std::to_string(app.uid) + ",gid=" + std::to_string(app.gid) +
                          ",file_mode=0666,dir_mode=0777,iocharset=utf8,soft";

    FileCredenziali credenziali;
    if (!utente.empty()) {
      std::string righe;
      auto barra = utente.find('\\');
      if (barra != std::string::npos) {
        righe += "domain=" + senza_a_capo(spoglia(utente.substr(0, barra))) + "\n";
        utente = utente.substr(barra + 1);
      }
      righe += "username=" + senza_a_capo(utente) + "\n";
      righe += "password=" + senza_a_capo(password) + "\n";
      std::string errore = credenziali.scrivi(righe);
      if (!errore.empty()) return {false, "Non riesco a preparare le credenziali: " + errore, ""};
      opzioni += ",credentials=" + credenziali.percorso();
    } else {
      opzioni += ",guest";
    }

    bool montata = false;
    std::string e;
    for (const char* versione : {"3.0", "2.1", "1.0"}) {
      RisultatoComando r = _radice({"mount", "-t", "cifs", "-o", opzioni + ",vers=" + versione,
                                    "//" + server + "/" + share, mp},
                                   25);
      if (r.codice == 0) {
        montata = true;
        break;
      }
      e = spoglia(detto(r, ""));
      if (inutile_riprovare(e)) break;
    }
    if (!montata) return {false, "mount: " + _spiega_mount(e.empty() ? "errore" : e), ""};
  }

  auto [accettata, msg] = _dopo_mount(mp, "Cartella di rete");
  if (!accettata) return {false, msg, ""};
  return {true, "Montata", mp};
}

}  // namespace nvr
