// nvr: the recorder as a program of its own. It is its own host: web server, login, camera
// list, entity states and pages, with the recorder attached to it.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <system_error>
#include <thread>

#include "autonomo/accesso.h"
#include "autonomo/api_host.h"
#include "autonomo/avvio.h"
#include "autonomo/configurazione.h"
#include "autonomo/demo.h"
#include "autonomo/impostazioni.h"
#include "autonomo/server_http.h"
#include "autonomo/servizio.h"
#include "autonomo/telecamere_host.h"
#include "autonomo/tls.h"
#include "core/db.h"
#include "core/segnale_nel_thread.h"
#include "core/stato.h"
#include "engine/motore.h"
#include "engine/mqtt.h"
#include "engine/registratori.h"
#include "engine/salute_raccolta.h"
#include "engine/vivo.h"
#include "web/collega.h"
#include "web/segnali.h"

namespace {

using namespace nvr;
using namespace nvr::autonomo;

constexpr const char* kVersione = "1.0.0";

struct Opzioni {
  std::string indirizzo = "127.0.0.1";
  int porta = 8090;
  std::string dati = "./nvr-dati";
  std::string fuso;
  bool demo = false;
  bool nuova_password = false;
  int segmento_prova = 0;
  double margine_ferma_prova = 0;
  std::string tls_cert;
  std::string tls_chiave;
  bool tls_autofirmato = false;
  std::string configurazione;
  bool servizio = false;
  // Put before a message about a value that came from the configuration file, to name its key.
  std::string prefisso_dati;
  std::string prefisso_fuso;
};

int fallisci(const std::string& riga, int codice = 1) {
  std::fprintf(stderr, "%s\n", riga.c_str());
  return codice;
}

// Ctrl-C ends the program exactly as SIGTERM does: the SIGTERM path is the one that stops the
// recorders, finalises their segments and exits with status 0.
// Without a pipe or a thread Ctrl-C keeps its default effect.
void inoltra_sigint_come_sigterm() {
  try {
    segnale_nel_thread(SIGINT, [] { ::kill(::getpid(), SIGTERM); });
  } catch (const std::system_error&) {
  }
}

// The password: generated at the first start (or when asked), shown once, kept as a hash.
// A service's output goes to the system journal, so there it goes to a file only root reads;
// an administrator who runs the program from a terminal still sees it.
Esito<std::string> impronta_amministratore(const std::string& db_file, const Opzioni& o,
                                           const std::string& dati) {
  auto impronta = o.nuova_password ? std::nullopt : leggi_impronta(db_file);
  if (impronta) return *impronta;
  const std::string password = genera_password();
  std::string nuova_impronta = impronta_password(password);
  if (o.servizio && !::isatty(STDOUT_FILENO)) {
    auto file = scrivi_password_iniziale(dati, password);
    if (!file) return file.errore();
    salva_impronta(db_file, nuova_impronta);
    std::printf(
        "Password dell'amministratore scritta in %s (leggibile solo da root; "
        "--nuova-password ne crea un'altra)\n",
        file.valore().c_str());
  } else {
    salva_impronta(db_file, nuova_impronta);
    std::printf(
        "Password dell'amministratore: %s (annotala: non verra' mostrata di nuovo; "
        "--nuova-password ne crea un'altra)\n",
        password.c_str());
  }
  std::fflush(stdout);
  return nuova_impronta;
}

// Fills what the command line left unset from the configuration file, then the service's
// defaults: every address, the system's data folder, a self-signed certificate.
std::optional<Errore> completa_opzioni(const CLI::App& app, Opzioni& o) {
  auto dato = [&](const char* opzione) {
    const CLI::Option* scelta = app.get_option_no_throw(opzione);
    return scelta != nullptr && scelta->count() > 0;
  };
  bool indirizzo_scelto = dato("--indirizzo");
  if (!o.configurazione.empty()) {
    auto letta = leggi_configurazione(o.configurazione);
    if (!letta) return letta.errore();
    const ValoriConfigurazione& c = letta.valore();
    if (c.indirizzo && !indirizzo_scelto) {
      o.indirizzo = *c.indirizzo;
      indirizzo_scelto = true;
    }
    if (c.porta && !dato("--porta")) o.porta = *c.porta;
    if (c.dati && !dato("--dati")) {
      o.dati = *c.dati;
      o.prefisso_dati = prefisso_chiave(o.configurazione, "dati");
    }
    if (c.fuso && !dato("--fuso")) {
      o.fuso = *c.fuso;
      o.prefisso_fuso = prefisso_chiave(o.configurazione, "fuso");
    }
    if (c.tls_cert && !dato("--tls-cert")) o.tls_cert = *c.tls_cert;
    if (c.tls_chiave && !dato("--tls-chiave")) o.tls_chiave = *c.tls_chiave;
  }
  if (o.servizio) {
    if (!indirizzo_scelto) o.indirizzo = "0.0.0.0";
    if (!dato("--dati") && o.prefisso_dati.empty()) o.dati = "/var/lib/nvr";
    if (o.tls_cert.empty() && o.tls_chiave.empty()) o.tls_autofirmato = true;
  }
  return std::nullopt;
}

int esegui(const Opzioni& o) {
  auto fuso = fuso_da_usare(o.fuso);
  if (!fuso) return fallisci(o.prefisso_fuso + fuso.errore().messaggio, 2);
  auto dati = prepara_cartella_dati(o.dati);
  // Status 2, like a bad configuration value: the service manager does not restart into the
  // same message every few seconds.
  if (!dati) return fallisci(o.prefisso_dati + dati.errore().messaggio, 2);
  auto tls = prepara_tls(o.tls_cert, o.tls_chiave, o.tls_autofirmato, dati.valore());
  if (!tls) return fallisci(tls.errore().messaggio, 2);
  if (!ffmpeg_presente()) {
    const std::string riga =
        "ffmpeg non trovato: installa il pacchetto ffmpeg: apt-get install ffmpeg";
    if (o.demo) return fallisci(riga + " (serve anche alla telecamera dimostrativa)");
    std::fprintf(stderr, "%s (il server parte, ma non registra finche' manca)\n", riga.c_str());
  }

  auto rotte = std::make_shared<Instradatore>();
  auto server = std::make_shared<ServerHttp>(rotte);
  auto porta = server->apri(o.indirizzo, o.porta);
  if (!porta) return fallisci(porta.errore().messaggio);
  if (tls.valore().attivo()) server->usa_tls(tls.valore().certificato, tls.valore().chiave);

  ::signal(SIGPIPE, SIG_IGN);  // a client that hangs up must not end the program
  inoltra_sigint_come_sigterm();

  const std::string db_file = dati.valore() + "/nvr.db";
  auto contesto = std::make_shared<ContestoHost>();
  contesto->db_file = db_file;
  contesto->fuso = fuso.valore();
  contesto->versione = kVersione;
  contesto->stati = std::make_shared<StatiEntita>();
  contesto->https = tls.valore().attivo();
  try {
    crea_tabella_telecamere(db_file);
    auto impronta = impronta_amministratore(db_file, o, dati.valore());
    if (!impronta) return fallisci(impronta.errore().messaggio);
    contesto->accesso = std::make_shared<Accesso>(impronta.valore());
  } catch (const std::exception& e) {
    return fallisci(std::string("Database ") + db_file + " non utilizzabile: " + e.what());
  }

  auto host = std::make_shared<Host>();
  host->app = rotte;
  host->login_required = guardia_login(contesto->accesso);
  host->admin_required = guardia_admin(contesto->accesso);
  host->DB_FILE = db_file;
  host->_zn_fuso = [nome = fuso.valore()]() -> std::optional<std::string> { return nome; };
  host->get_all_internal_states = [stati = contesto->stati] { return stati->tutti(); };
  host->normalize_state = normalize_state;
  host->registra_uscita = registra_uscita_nativa;
  host->installa_sigterm = [](std::function<void()> gestore) {
    installa_sigterm_nativo([gestore] {
      // Held until the process ends: no engine pass may start a recorder again while the
      // running ones are stopped and their last segments finalised.
      notifica_arresto();
      blocca_giri().release();
      gestore();
    });
  };

  // The demo stream serves one client: the recorder. Live view gets a stream of its own.
  auto demo = std::make_shared<GeneratoreDemo>();
  auto demo_vivo = std::make_shared<GeneratoreDemo>();
  try {
    registra_rotte_host(*rotte, contesto);
    // States arriving over MQTT take the path of POST /api/stati, and wake the engine at once.
    RiceviStato ricevi = [stati = contesto->stati](const std::string& entita, const Json& stato) {
      (void)stati->unisci(Json{{entita, stato}});
      _giro_sicuro();
    };
    registra_rotte_impostazioni(
        *rotte, host->login_required, host->admin_required, db_file,
        [ricevi](const Impostazioni& imp) { configura_mqtt(imp.mqtt, ricevi); });
    configura_mqtt(leggi_impostazioni(db_file).mqtt, ricevi);
    collega(host);
    aggiungi_scorciatoie(*rotte, contesto);
    configura_primo_avvio(dati.valore());
    if (o.demo) {
      const int porta_demo = porta_libera_locale();
      int porta_vivo = porta_libera_locale();
      while (porta_vivo == porta_demo) porta_vivo = porta_libera_locale();
      if (prepara_demo(db_file, url_demo(porta_demo), url_demo(porta_vivo))) {
        demo->avvia(porta_demo);
        demo_vivo->avvia(porta_vivo);
        // The recorder's first attempt must find the stream, or it waits out a back-off.
        if (!demo->attendi_ascolto(porta_demo, 10))
          std::fprintf(stderr, "La telecamera dimostrativa non parte: si riprova\n");
      }
    }
    if (o.margine_ferma_prova > 0) imposta_margine_ferma_per_test(o.margine_ferma_prova);
    if (o.segmento_prova > 0) {
      Connessione c(db_file);
      c.esegui("UPDATE nvr_config SET segmento_sec=?", {std::int64_t{o.segmento_prova}});
      c.commit();
    }
  } catch (const std::exception& e) {
    return fallisci(std::string("Avvio non riuscito: ") + e.what());
  }
  registra_uscita_nativa([demo, demo_vivo, server] {
    ferma_mqtt(2);  // "offline" before the process goes
    demo->ferma();
    demo_vivo->ferma();
    server->ferma();
    ferma_vivi();
  });
  _giro_sicuro();

  std::string mostrato = o.indirizzo == "0.0.0.0" ? "127.0.0.1" : o.indirizzo;
  const char* schema = tls.valore().attivo() ? "https" : "http";
  std::printf("nvr in ascolto: apri %s://%s:%d/ nel browser (dati in %s)\n", schema,
              mostrato.c_str(), porta.valore(), dati.valore().c_str());
  if (tls.valore().attivo())
    std::printf("Certificato HTTPS: %s\n", tls.valore().file_certificato.c_str());
  std::fflush(stdout);
  notifica_pronto("In ascolto sulla porta " + std::to_string(porta.valore()));
  avvia_cane_da_guardia([avvio = adesso_monotono()] {
    return motore_vivo(adesso_monotono(), ultimo_segno_di_vita_motore(), avvio,
                       kSilenzioMassimoMotore);
  });
  if (!server->servi())
    return fallisci(tls.valore().attivo()
                        ? "Il server web non parte in HTTPS: certificato o chiave rifiutati"
                        : "Il server web si e' fermato per un errore");
  // Only the exit path stops the server, and it ends the process itself once the recorders are
  // down. Returning from main meanwhile would destroy the engine's state under its thread.
  std::this_thread::sleep_for(std::chrono::seconds(30));
  std::fflush(nullptr);
  ::_exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  Opzioni o;
  CLI::App app{"nvr: videoregistratore di rete per telecamere IP"};
  app.add_option("--indirizzo", o.indirizzo, "indirizzo su cui ascoltare")->capture_default_str();
  app.add_option("--porta", o.porta, "porta HTTP")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535));
  app.add_option("--dati", o.dati, "cartella dei dati (database e archivio)")
      ->capture_default_str();
  app.add_option("--fuso", o.fuso, "fuso orario IANA (predefinito: quello della macchina)");
  app.add_flag("--demo", o.demo, "aggiunge una telecamera dimostrativa e avvia la registrazione");
  app.add_flag("--nuova-password", o.nuova_password,
               "genera e mostra una nuova password dell'amministratore");
  app.add_option("--tls-cert", o.tls_cert, "certificato HTTPS (file PEM), con --tls-chiave");
  app.add_option("--tls-chiave", o.tls_chiave, "chiave del certificato HTTPS (file PEM)");
  app.add_flag("--tls-autofirmato", o.tls_autofirmato,
               "HTTPS con un certificato autofirmato creato in <dati>/tls/ (se mancano i file)");
  // Only the tests use it: segments of a few seconds, below what the API allows.
  app.add_option("--segmento-prova", o.segmento_prova)->group("");
  // Only the tests too: the stopped-camera rule's minute of margin, shortened.
  app.add_option("--margine-ferma-prova", o.margine_ferma_prova)->group("");
  app.add_option("--configurazione", o.configurazione,
                 "file di configurazione (chiave = valore); le opzioni date qui prevalgono");
  app.add_flag("--servizio", o.servizio,
               "come servizio di sistema: ascolta su tutti gli indirizzi, dati in /var/lib/nvr, "
               "HTTPS con certificato autofirmato, password iniziale in un file");
  CLI11_PARSE(app, argc, argv);
  if (auto errore = completa_opzioni(app, o)) return fallisci(errore->messaggio, 2);
  return esegui(o);
}
