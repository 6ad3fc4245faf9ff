#include "web/api_config.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <vector>

#include "core/config.h"
#include "core/percorsi.h"
#include "core/testi.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "storage/archivio.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "storage/con_timeout.h"
#include "storage/montaggi.h"
#include "storage/usb.h"
#include "web/api_stato.h"

namespace nvr {

namespace fs = std::filesystem;

namespace {

const char* const kNonAmmessa =
    "Cartella non ammessa: scegli un'unita' USB, una cartella di rete o una sotto /media, /mnt, "
    "/srv, /home";
const char* const kSuUnitaEsterna =
    "Questa cartella sta su un'unita' esterna: sceglila dalla scheda \"Chiavetta / disco USB\" o "
    "\"Cartella di rete\"";

// The real path of `p` (symbolic links resolved as far as it exists). A path on a hung mount is
// compared as it was written rather than holding the request up.
std::string percorso_reale(const std::string& p) {
  auto r = _con_timeout([p] { return percorso_reale_o_scritto(p); }, 5);
  return senza_barra_finale(r.ok() ? r.valore() : p);
}

bool cartella_esistente(const std::string& p) {
  auto r = _con_timeout(
      [p] {
        std::error_code ec;
        return fs::is_directory(p, ec);
      },
      5);
  return r.ok() && r.valore();
}

// The mount points of the drives plugged in now, asked once per request and only when a check
// needs them (lsblk may take a while).
class PuntiUsb {
 public:
  const std::vector<std::string>& get() {
    if (!letti_) {
      for (const Unita& u : unita_usb())
        if (u.montata && !u.mountpoint.empty()) punti_.push_back(u.mountpoint);
      letti_ = true;
    }
    return punti_;
  }

 private:
  bool letti_ = false;
  std::vector<std::string> punti_;
};

// The storage rules for a new archive folder, in the order the user should hear about them.
// Answers the refusal message, or nothing when the folder may be used.
std::optional<std::string> rifiuto_cartella(const std::string& nuova, const Json& dest,
                                            const Json& salvata) {
  // A NUL would cut the path short for the system calls that check it, but not when stored.
  if (nuova.find('\0') != std::string::npos || !_dentro_radici_permesse(nuova)) return kNonAmmessa;

  // The roots hold one folder per drive or share: recording into one would scatter the archive
  // over the system disk whenever the drive is away.
  const std::string reale = percorso_reale(nuova);
  std::vector<std::string> radici = radici_permesse_fisse();
  radici.push_back(std::string(RADICE_MONTAGGI));  // also when a test moved the mount root
  if (std::find(radici.begin(), radici.end(), reale) != radici.end())
    return "Scegli o crea una cartella dentro l'unita', non la radice " + nuova;

  const std::string tipo = testo_campo(dest, "tipo");
  const bool esterna = tipo == "usb" || tipo == "rete";
  if (esterna) {
    std::string radice = _radice_montaggio(nuova);
    if (radice == "/" || radice.empty())
      return "La cartella " + nuova +
             " non sta sull'unita' (non e' montata): premi di nuovo \"Usa questa unita'\" o "
             "\"Collega\"";
  }

  PuntiUsb usb;
  if (!esterna) {
    // A plain folder on a drive would be recorded into the empty mount folder of the system disk
    // once the drive is unplugged: drives are chosen as drives, so that they are re-mounted.
    if (dentro_cartella(nuova, radice_montaggi())) return kSuUnitaEsterna;
    for (const std::string& mp : usb.get())
      if (dentro_cartella(nuova, mp)) return kSuUnitaEsterna;
    const std::string tipo_salvato = testo_campo(salvata, "tipo");
    const std::string mp_salvato = testo_campo(salvata, "mountpoint");
    if (!mp_salvato.empty()) {
      if (tipo_salvato == "usb" && dentro_cartella(nuova, mp_salvato)) return kSuUnitaEsterna;
      if (tipo_salvato == "rete" && dentro_cartella(reale, percorso_reale(mp_salvato)))
        return kSuUnitaEsterna;
    }
  }

  // Drives are mounted for the server's user and cannot change owner (FAT, exFAT): only a
  // folder of the machine's own disks is handed over.
  if (cartella_esistente(nuova) && !dentro_cartella(nuova, radice_montaggi())) {
    const auto& punti = usb.get();
    bool su_unita = std::any_of(punti.begin(), punti.end(),
                                [&](const std::string& mp) { return dentro_cartella(nuova, mp); });
    if (!su_unita && !_scrivibile(nuova) && !_intesta(nuova))
      return "Cartella non scrivibile dall'utente " + _utente_app().nome +
             " con cui gira il server: crea una sottocartella o scegline un'altra";
  }
  return std::nullopt;
}

// The destination object sent by the page, completed with what it never sends back (the share
// password) and with what the drive says of itself now.
Json destinazione_completa(const Json& inviata, const Json& salvata) {
  Json dest;
  if (inviata.is_object())
    dest = inviata;
  else if (vuoto(inviata))
    dest = Json::object();
  else
    throw std::invalid_argument("destinazione non e' un oggetto: " + testo_di(inviata));

  const std::string tipo = testo_campo(dest, "tipo");
  if (tipo == "rete" && vuoto(campo(dest, "password")) && pieno(campo(salvata, "password")))
    dest["password"] = campo(salvata, "password");
  if (tipo == "usb") {
    auto u = _trova_unita(testo_campo(dest, "dev"), testo_campo(dest, "uuid"),
                          testo_campo(dest, "etichetta"));
    if (u) {
      dest["dev"] = u->dev;
      dest["uuid"] = u->uuid;
      dest["etichetta"] = u->etichetta;
      if (u->montata && !u->mountpoint.empty()) dest["mountpoint"] = u->mountpoint;
    }
  }
  return dest;
}

std::string testo_cartella(const Json& v) {
  if (vuoto(v)) return "";
  if (!v.is_string()) throw std::invalid_argument("cartella non e' un testo: " + testo_di(v));
  return v.get<std::string>();
}

int intero_limitato(const Json& v, const char* nome, std::int64_t predefinito, std::int64_t minimo,
                    std::int64_t massimo) {
  std::optional<std::int64_t> n = vuoto(v) ? predefinito : intero(v);
  if (!n)
    throw std::invalid_argument(std::string(nome) + " non e' un numero intero: " + testo_di(v));
  return static_cast<int>(std::clamp(*n, minimo, massimo));
}

double spazio_limitato(const Json& v) {
  std::optional<double> d = vuoto(v) ? 2.0 : reale(v);
  if (!d) throw std::invalid_argument("spazio_min_gb non e' un numero: " + testo_di(v));
  // NaN fails every comparison: it lands on the largest reserve, the safe side for the disk.
  if (!(*d < 500.0)) return 500.0;
  return std::max(*d, 0.5);
}

Json elenco_telecamere() {
  Json lista = Json::array();
  for (const Camera& c : _telecamere()) lista.push_back(c.come_json());
  return lista;
}

Risposta leggi(const Richiesta&) {
  return _json(Json{{"config", _config_pubblica(leggi_config())},
                    {"telecamere", elenco_telecamere()},
                    {"stato", stato_generale()},
                    {"ffmpeg", ffmpeg_presente()}});
}

Risposta salva(const Richiesta& r) {
  const Json corpo = r.corpo.is_object() ? r.corpo : Json::object();
  Config cfg = leggi_config();
  const Json salvata = cfg.destinazione;

  // Values as sent, read as numbers only once the folder has been accepted.
  Json attivo = cfg.attivo, segmento = cfg.segmento_sec, giorni = cfg.giorni,
       spazio = cfg.spazio_min_gb;
  if (corpo.contains("attivo")) attivo = corpo.at("attivo");
  if (corpo.contains("segmento_sec")) segmento = corpo.at("segmento_sec");
  if (corpo.contains("giorni")) giorni = corpo.at("giorni");
  if (corpo.contains("spazio_min_gb")) spazio = corpo.at("spazio_min_gb");

  const bool con_dest = corpo.contains("destinazione");
  Json dest = con_dest ? destinazione_completa(corpo.at("destinazione"), salvata) : salvata;

  if (corpo.contains("cartella")) {
    std::string nuova = _normalizza_cartella(testo_cartella(corpo.at("cartella")));
    if (!nuova.empty()) {
      if (auto no = rifiuto_cartella(nuova, dest, salvata)) return errore_json(*no, 400);
    }
    cfg.cartella = nuova;
  }
  if (con_dest) cfg.destinazione = dest;

  cfg.attivo = pieno(attivo) ? 1 : 0;
  cfg.segmento_sec = intero_limitato(segmento, "segmento_sec", 300, 60, 1800);
  cfg.giorni = intero_limitato(giorni, "giorni", 14, 1, 365);
  cfg.spazio_min_gb = spazio_limitato(spazio);

  _salva_config(cfg);
  if (!cfg.attivo) _ferma_tutto("NVR disattivato");
  _giro_sicuro();
  return _json(Json{{"status", "success"}, {"config", _config_pubblica(leggi_config())}});
}

}  // namespace

std::string _normalizza_cartella(const std::string& testo) {
  std::string p = spoglia(testo);
  if (p.empty()) return p;
  return senza_barra_finale(fs::path(p).lexically_normal().string());
}

Risposta api_config(const Richiesta& r) { return r.metodo == "POST" ? salva(r) : leggi(r); }

Risposta api_camera(const Richiesta& r) {
  const Json corpo = r.corpo.is_object() ? r.corpo : Json::object();
  std::optional<std::int64_t> cid = intero(campo(corpo, "id"));
  if (!cid) return errore_json("Telecamera non valida", 400);
  std::vector<Camera> cams = _telecamere();
  if (std::none_of(cams.begin(), cams.end(), [&](const Camera& c) { return c.id == *cid; }))
    return errore_json("Telecamera non trovata", 404);

  _salva_camera(*cid, corpo);
  if (vuoto(campo(corpo, "attiva"))) _ferma(*cid, "telecamera disattivata");
  _giro_sicuro();
  return _json(Json{{"status", "success"}, {"telecamere", elenco_telecamere()}});
}

}  // namespace nvr
