// The check before every engine pass that the archive is there, alive, writable and not full.
#include <cstdio>
#include <filesystem>

#include "archive/pulizia.h"
#include "core/log.h"
#include "core/tempo.h"
#include "engine/registratori.h"
#include "storage/archivio.h"
#include "storage/cartelle_fs.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "storage/rete.h"
#include "storage/usb.h"

namespace nvr {

namespace {

namespace fs = std::filesystem;

// Re-mount attempts of a drive or share that went away are this far apart at least: a mount
// can take over a minute, and the engine asks every few seconds.
constexpr double kAttesaRimontaggio = 30.0;

std::string testo(const Json& dest, const std::string& chiave) {
  const Json& v = campo(dest, chiave);
  return vuoto(v) ? "" : testo_di(v);
}

std::string normale(const fs::path& p) {
  std::string s = p.lexically_normal().string();
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return s;
}

// `cartella` moved from under `vecchio` to the same place under `nuovo`.
std::string spostata(const std::string& cartella, const std::string& vecchio,
                     const std::string& nuovo) {
  std::string v = vecchio;
  while (v.size() > 1 && v.back() == '/') v.pop_back();
  std::string relativa = cartella.size() > v.size() ? cartella.substr(v.size() + 1) : "";
  return normale(fs::path(nuovo) / relativa);
}

void fallito(const std::string& msg) { _ultimo_mount_fallito.set(MountFallito{_ora(), msg}); }

// Mounts the destination again. Answers (ok, message, mount point); on success `dest` may have
// been updated with the drive's new device name, and `cfg` saved with it.
std::tuple<bool, std::string, std::string> rimonta(Config& cfg, Json& dest,
                                                   const std::string& tipo) {
  if (tipo == "rete") {
    auto [ok, msg, mp] = monta_rete(dest);
    if (!ok) return {false, "Cartella di rete non raggiungibile: " + msg, ""};
    return {true, "", mp};
  }
  std::string dev = testo(dest, "dev"), uuid = testo(dest, "uuid");
  std::string etichetta = testo(dest, "etichetta");
  auto [ok, msg, mp] = monta_usb(dev, uuid, etichetta);
  if (!ok) return {false, "Unita' USB non collegata: " + msg, ""};
  // A drive plugged in again often gets another device name: remember the new one, so that the
  // next start finds it at once.
  std::optional<Unita> u = _trova_unita(dev, uuid, etichetta);
  if (u && u->dev != dev) {
    if (!u->dev.empty()) dest["dev"] = u->dev;
    if (!u->uuid.empty()) dest["uuid"] = u->uuid;
    if (!u->etichetta.empty()) dest["etichetta"] = u->etichetta;
    cfg.destinazione = dest;
    _salva_config(cfg);
  }
  return {true, "", mp};
}

}  // namespace

std::pair<bool, std::string> _archivio_pronto(Config& cfg) {
  std::string cartella = cfg.cartella;
  Json dest = cfg.destinazione.is_object() ? cfg.destinazione : Json::object();
  if (cartella.empty()) return {false, "Nessuna cartella di archivio scelta"};

  std::string tipo = testo(dest, "tipo");
  if (tipo == "usb" || tipo == "rete") {
    std::string mp = testo(dest, "mountpoint");
    if (!mp.empty() && !(_ismount(mp) && _mount_vivo(dest, mp))) {
      MountFallito ultimo = _ultimo_mount_fallito.get();
      if (_ora() - ultimo.ts < kAttesaRimontaggio) return {false, ultimo.msg};

      if (_ismount(mp)) {
        // Mounted but dead (a pulled drive, a share gone away): nothing may keep writing into
        // it, and the stale mount must go before the drive can be mounted again.
        _ferma_tutto("archivio staccato");
        (void)_radice({"umount", "-l", mp}, 20);
        _log("archivio " + mp + " non risponde piu': smontato, si riprova");
      }

      auto [ok, msg, nuovo] = rimonta(cfg, dest, tipo);
      if (!ok) {
        fallito(msg);
        return {false, msg};
      }
      _ultimo_mount_fallito.modifica([](MountFallito& m) { m.ts = 0.0; });

      if (nuovo != mp) {
        // The drive came back elsewhere (mounted by the desktop, say): follow it.
        if (_dentro(cartella, mp)) cartella = spostata(cartella, mp, nuovo);
        cfg.cartella = cartella;
        dest["mountpoint"] = nuovo;
        cfg.destinazione = dest;
        _salva_config(cfg);
        _log("archivio spostato in " + cartella);
      }
    }
    // An empty mount-point folder lies on the system disk: recording there would fill it.
    std::string radice = _radice_montaggio(cartella);
    if (radice == "/" || radice.empty())
      return {false,
              "La cartella " + cartella + " non sta sull'unita' esterna: unita' non montata"};
  }

  auto [creata, perche] = _mkdir(cartella);
  if (!creata) return {false, "Cartella non creabile: " + perche};
  if (!_intesta(cartella))
    return {false, "Cartella non scrivibile dall'utente " + _utente_app().nome +
                       " con cui gira il server"};

  std::optional<Spazio> sp = _spazio_sicuro(cartella, 0);
  if (sp && sp->libero_gb < cfg.spazio_min_gb) {
    _pulizia(cfg, true);
    sp = _spazio_sicuro(cartella, 0);
    if (sp && sp->libero_gb < cfg.spazio_min_gb) {
      char msg[96];
      std::snprintf(msg, sizeof msg, "Spazio esaurito sull'archivio (%.1f GB liberi)",
                    sp->libero_gb);
      return {false, msg};
    }
  }
  return {true, ""};
}

}  // namespace nvr
