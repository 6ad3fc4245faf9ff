#include "autonomo/token_metriche.h"

#include "core/db.h"

namespace nvr::autonomo {

std::string token_metriche(const std::string& db_file) {
  try {
    Connessione c(db_file);
    auto righe = c.righe("SELECT valore FROM nvr_autonomo_impostazioni WHERE chiave=?",
                         {std::string(kChiaveTokenMetriche)});
    return righe.empty() ? "" : come_testo(righe[0][0]);
  } catch (const ErroreDb&) {
    return "";  // no settings saved yet: the table comes with the first one
  }
}

}  // namespace nvr::autonomo
