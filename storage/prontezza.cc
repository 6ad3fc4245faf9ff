#include "storage/prontezza.h"

#include <cstdio>
#include <filesystem>
#include <mutex>

#include "core/log.h"
#include "core/percorsi.h"
#include "core/tempo.h"
#include "storage/archivio.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "storage/rete.h"
#include "storage/usb.h"

namespace nvr {

namespace {

namespace fs = std::filesystem;

std::mutex fallito_m;
MountFallito fallito_;  // guarded by fallito_m

void segna_fallito(const std::string& msg) {
  std::lock_guard l(fallito_m);
  fallito_ = MountFallito{_ora(), msg};
}

std::string testo(const Json& dest, const std::string& chiave) {
  return testo_o_vuoto(campo(dest, chiave));
}

Json destinazione(const Config& cfg) {
  return cfg.destinazione.is_object() ? cfg.destinazione : Json::object();
}

bool esterna(const Json& dest) {
  std::string tipo = testo(dest, "tipo");
  return tipo == "usb" || tipo == "rete";
}

// Mounts `dest` again: (ok, message, mount point). A drive plugged in again often gets another
// device name: `dest` takes the new one, so that the next start finds it at once.
std::tuple<bool, std::string, std::string> monta_di_nuovo(Json& dest, bool& cambiata) {
  if (testo(dest, "tipo") == "rete") {
    auto [ok, msg, mp] = monta_rete(dest);
    if (!ok) return {false, "Cartella di rete non raggiungibile: " + msg, ""};
    return {true, "", mp};
  }
  std::string dev = testo(dest, "dev"), uuid = testo(dest, "uuid");
  std::string etichetta = testo(dest, "etichetta");
  auto [ok, msg, mp] = monta_usb(dev, uuid, etichetta);
  if (!ok) return {false, "Unita' USB non collegata: " + msg, ""};
  std::optional<Unita> u = _trova_unita(dev, uuid, etichetta);
  if (u && u->dev != dev) {
    if (!u->dev.empty()) dest["dev"] = u->dev;
    if (!u->uuid.empty()) dest["uuid"] = u->uuid;
    if (!u->etichetta.empty()) dest["etichetta"] = u->etichetta;
    cambiata = true;
  }
  return {true, "", mp};
}

}  // namespace

VerdettoMontaggio valuta_montaggio(const VistaMontaggio& vista, const MountFallito& ultimo,
                                   double adesso) {
  if (!vista.esterna || vista.mountpoint.empty() || (vista.montato && vista.vivo)) return {};
  if (adesso - ultimo.ts < kAttesaRimontaggio) return {AzioneMontaggio::aspetta, ultimo.msg};
  // Mounted but dead (a pulled drive, a share gone away): nothing may keep writing into it, and
  // the stale mount must go before the drive can be mounted again.
  return {vista.montato ? AzioneMontaggio::stacca_e_rimonta : AzioneMontaggio::rimonta, ""};
}

std::string cartella_seguita(const std::string& cartella, const std::string& vecchio,
                             const std::string& nuovo) {
  std::string v = senza_barra_finale(vecchio);
  std::string relativa = cartella.size() > v.size() ? cartella.substr(v.size() + 1) : "";
  return senza_barra_finale((fs::path(nuovo) / relativa).lexically_normal().string());
}

bool sotto_la_soglia(const std::optional<Spazio>& spazio, double minimo_gb) {
  return spazio && spazio->libero_gb < minimo_gb;
}

std::string messaggio_spazio_esaurito(double libero_gb) {
  char msg[96];
  std::snprintf(msg, sizeof msg, "Spazio esaurito sull'archivio (%.1f GB liberi)", libero_gb);
  return msg;
}

VistaMontaggio osserva_montaggio(const Config& cfg) {
  Json dest = destinazione(cfg);
  VistaMontaggio v;
  v.esterna = esterna(dest);
  v.mountpoint = testo(dest, "mountpoint");
  if (!v.esterna || v.mountpoint.empty()) return v;
  v.montato = _ismount(v.mountpoint);
  v.vivo = v.montato && _mount_vivo(dest, v.mountpoint);
  return v;
}

MountFallito ultimo_mount_fallito() {
  std::lock_guard l(fallito_m);
  return fallito_;
}

void stacca_montaggio_morto(const std::string& mp) {
  (void)_radice({"umount", "-l", mp}, 20);
  _log("archivio " + mp + " non risponde piu': smontato, si riprova");
}

std::pair<bool, std::string> rimonta_archivio(Config& cfg, const VistaMontaggio& vista) {
  Json dest = destinazione(cfg);
  bool cambiata = false;
  auto [ok, msg, nuovo] = monta_di_nuovo(dest, cambiata);
  if (!ok) {
    segna_fallito(msg);
    return {false, msg};
  }
  {
    std::lock_guard l(fallito_m);
    fallito_.ts = 0.0;
  }
  if (nuovo != vista.mountpoint) {
    // The drive came back elsewhere (mounted by the desktop, say): follow it.
    if (_dentro(cfg.cartella, vista.mountpoint))
      cfg.cartella = cartella_seguita(cfg.cartella, vista.mountpoint, nuovo);
    dest["mountpoint"] = nuovo;
    cambiata = true;
  }
  if (cambiata) {
    cfg.destinazione = dest;
    _salva_config(cfg);
  }
  if (nuovo != vista.mountpoint) _log("archivio spostato in " + cfg.cartella);
  return {true, ""};
}

std::pair<bool, std::string> prepara_cartella(const Config& cfg) {
  if (esterna(destinazione(cfg))) {
    // An empty mount-point folder lies on the system disk: recording there would fill it.
    std::string radice = _radice_montaggio(cfg.cartella);
    if (radice == "/" || radice.empty())
      return {false,
              "La cartella " + cfg.cartella + " non sta sull'unita' esterna: unita' non montata"};
  }
  auto [creata, perche] = _mkdir(cfg.cartella);
  if (!creata) return {false, "Cartella non creabile: " + perche};
  if (!_intesta(cfg.cartella))
    return {false, "Cartella non scrivibile dall'utente " + _utente_app().nome +
                       " con cui gira il server"};
  return {true, ""};
}

void azzera_prontezza_per_test() {
  std::lock_guard l(fallito_m);
  fallito_ = MountFallito{};
}

}  // namespace nvr
