#include "engine/archivio_pronto.h"

#include "archive/pulizia.h"
#include "core/tempo.h"
#include "engine/registratori.h"
#include "storage/montaggi.h"
#include "storage/prontezza.h"

namespace nvr {

std::pair<bool, std::string> _archivio_pronto(Config& cfg) {
  if (cfg.cartella.empty()) return {false, "Nessuna cartella di archivio scelta"};

  VistaMontaggio vista = osserva_montaggio(cfg);
  VerdettoMontaggio v = valuta_montaggio(vista, ultimo_mount_fallito(), _ora());
  switch (v.azione) {
    case AzioneMontaggio::nessuna:
      break;
    case AzioneMontaggio::aspetta:
      return {false, v.messaggio};
    case AzioneMontaggio::stacca_e_rimonta:
      _ferma_tutto("archivio staccato");
      stacca_montaggio_morto(vista.mountpoint);
      [[fallthrough]];
    case AzioneMontaggio::rimonta: {
      auto esito = rimonta_archivio(cfg, vista);
      if (!esito.first) return esito;
      break;
    }
  }

  auto esito = prepara_cartella(cfg);
  if (!esito.first) return esito;

  if (!sotto_la_soglia(_spazio_sicuro(cfg.cartella, 0), cfg.spazio_min_gb)) return {true, ""};
  _pulizia(cfg, true);
  std::optional<Spazio> sp = _spazio_sicuro(cfg.cartella, 0);
  if (sotto_la_soglia(sp, cfg.spazio_min_gb))
    return {false, messaggio_spazio_esaurito(sp->libero_gb)};
  return {true, ""};
}

}  // namespace nvr
