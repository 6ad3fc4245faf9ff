#include "engine/allineamento_mirato.h"

#include "archive/allineamento.h"
#include "core/json.h"
#include "storage/con_timeout.h"

namespace nvr {

namespace {

MemoriaAllineamento memoria;  // engine thread only, under _giro_lock

std::string archivio_di(const Config& cfg) {
  return cfg.cartella + "|" + testo_o_vuoto(campo(cfg.destinazione, "tipo")) + "|" +
         testo_o_vuoto(campo(cfg.destinazione, "mountpoint"));
}

}  // namespace

SceltaAllineamento scegli_allineamento(const MemoriaAllineamento& prima,
                                       const std::string& archivio,
                                       const std::optional<FirmeCartelle>& firme, double adesso) {
  if (prima.firme.empty() || prima.archivio != archivio || !firme ||
      adesso - prima.ultimo_completo >= kAllineamentoCompleto)
    return {true, {}};
  return {false, cartelle_cambiate(prima.firme, *firme)};
}

int allinea_dove_cambiato(const Config& cfg, double adesso) {
  // An absent archive concludes nothing (_allinea would delete nothing either); the next look
  // compares with the archive as it was before it went.
  if (!_archivio_presente(cfg)) return 0;
  std::optional<FirmeCartelle> firme;
  auto letto = _con_timeout([r = cfg.cartella, adesso] { return firme_archivio(r, adesso); }, 5);
  if (letto.ok()) firme = letto.valore();

  const std::string archivio = archivio_di(cfg);
  SceltaAllineamento scelta = scegli_allineamento(memoria, archivio, firme, adesso);
  bool completo = scelta.completo || righe_senza_file_in(scelta.da_guardare);
  int tolte = completo ? _allinea(cfg) : 0;
  // Remembered as they were before the check: a change meanwhile is seen at the next look.
  memoria.archivio = archivio;
  memoria.firme = firme.value_or(FirmeCartelle{});
  if (completo) memoria.ultimo_completo = adesso;
  return tolte;
}

void azzera_allineamento_mirato_per_test() { memoria = {}; }

}  // namespace nvr
