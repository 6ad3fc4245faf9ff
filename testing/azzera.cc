#include "testing/azzera.h"

#include "archive/allineamento.h"
#include "archive/indice.h"
#include "archive/posizione.h"
#include "core/contatori.h"
#include "core/stato.h"
#include "engine/decisione.h"
#include "engine/motore.h"
#include "engine/registratori.h"
#include "engine/vivo.h"
#include "storage/comando.h"
#include "storage/montaggi.h"
#include "storage/prontezza.h"
#include "web/api_storage.h"

namespace nvr {

void azzera_stato_per_test() {
  A.azzera_per_test();
  azzera_contatori_per_test();
  azzera_vivo_per_test();
  azzera_registratori_per_test();
  azzera_decisione_per_test();
  azzera_motore_per_test();
  azzera_indice_per_test();
  azzera_posizione_per_test();
  azzera_allineamento_per_test();
  azzera_prontezza_per_test();
  azzera_spazio_per_test();
  azzera_sudo_per_test();
  imposta_installazione_per_test({});
  imposta_radice_montaggi_per_test("");
}

}  // namespace nvr
