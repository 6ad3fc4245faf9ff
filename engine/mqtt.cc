#include "engine/mqtt.h"

#include <mosquitto.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "core/log.h"
#include "engine/salute.h"

namespace nvr {

namespace {

using Orologio = std::chrono::steady_clock;

constexpr int kKeepalive = 30;
constexpr auto kOgniControllo = std::chrono::seconds(1);  // how often states are compared
constexpr auto kOgniCompleto = std::chrono::seconds(60);  // how often all of them are resent

struct Comando {
  ImpostazioniMqtt imp;
  RiceviStato ricevi;
  bool ferma = false;  // the thread ends once it applied `imp`
};

std::mutex m_;  // guards nuova_, thread_vivo_
std::condition_variable cv_;
std::optional<Comando> nuova_;
bool thread_vivo_ = false;

std::atomic<bool> collegato_{false};
std::mutex fase_m_;  // guards fase_, messaggio_; held for a copy only
FaseMqtt fase_ = FaseMqtt::spento;
std::string messaggio_;

void imposta_fase(FaseMqtt f, std::string messaggio) {
  std::lock_guard l(fase_m_);
  fase_ = f;
  messaggio_ = std::move(messaggio);
}
std::atomic<std::uint64_t> scartati_{0}, ricevuti_{0};

// The connection, owned by the link's thread alone (the callbacks run inside mosquitto_loop on
// the same thread).
struct Collegamento {
  mosquitto* mosq = nullptr;
  ImpostazioniMqtt imp;
  RiceviStato ricevi;
  bool socket_aperto = false;  // connected at TCP level, CONNACK perhaps still to come
  bool collegato = false;      // the broker accepted the session
  std::string rifiuto;         // why the broker refused the last CONNECT, "" when it did not
  std::string causa;           // why the last attempt or connection failed otherwise
  int tentativi = 0;           // failed attempts in a row
  Orologio::time_point prossimo_tentativo{};
  Orologio::time_point ultimo_controllo{}, ultimo_completo{};
  std::map<std::string, std::string> inviati;  // topic -> payload published this session

  std::string indirizzo() const { return imp.host + ":" + std::to_string(imp.porta); }
};

void pubblica(Collegamento& c, const MessaggioMqtt& m) {
  mosquitto_publish(c.mosq, nullptr, m.topic.c_str(), int(m.payload.size()), m.payload.data(), 1,
                    m.retain);
}

void al_collegamento(mosquitto*, void* dati, int rc) {
  auto& c = *static_cast<Collegamento*>(dati);
  if (rc != 0) {
    c.rifiuto = motivo_rifiuto(rc);
    return;  // the broker closes the connection; the loop reports it
  }
  c.collegato = true;
  c.rifiuto.clear();
  c.tentativi = 0;
  collegato_ = true;
  ritira_problema("mqtt");
  _log("mqtt: collegato a " + c.indirizzo());
  imposta_fase(FaseMqtt::collegato, "Collegato a " + c.indirizzo());
  pubblica(c, {topic_disponibilita(c.imp.prefisso), "online", true});
  for (const StatoDaMqtt& s : c.imp.stati) mosquitto_subscribe(c.mosq, nullptr, s.topic.c_str(), 1);
  c.inviati.clear();  // a new session: everything again
  c.ultimo_controllo = {};
}

void al_messaggio(mosquitto*, void* dati, const mosquitto_message* msg) {
  auto& c = *static_cast<Collegamento*>(dati);
  const StatoDaMqtt* voce = nullptr;
  for (const StatoDaMqtt& s : c.imp.stati)
    if (msg->topic && s.topic == msg->topic) voce = &s;
  std::optional<Json> stato;
  if (voce && msg->payloadlen >= 0)
    stato = stato_da_payload(
        std::string_view(static_cast<const char*>(msg->payload), std::size_t(msg->payloadlen)));
  if (!stato || !c.ricevi) {
    ++scartati_;
    return;
  }
  ++ricevuti_;
  c.ricevi(voce->entita, *stato);
}

void segnala_irraggiungibile(Collegamento& c) {
  std::string testo;
  if (!c.rifiuto.empty()) {
    testo = "Il broker MQTT " + c.indirizzo() + " rifiuta il collegamento: " + c.rifiuto;
    imposta_fase(FaseMqtt::rifiutato, testo);
  } else {
    testo = "Broker MQTT non raggiungibile: " + c.indirizzo() + " (" + c.causa + ")";
    imposta_fase(FaseMqtt::irraggiungibile, testo);
  }
  segnala_problema("mqtt", testo);
}

void perso(Collegamento& c) {
  if (c.socket_aperto) {
    mosquitto_disconnect(c.mosq);
    if (c.causa.empty()) c.causa = "collegamento interrotto";
  }
  c.socket_aperto = c.collegato = false;
  collegato_ = false;
  segnala_irraggiungibile(c);
  c.prossimo_tentativo =
      Orologio::now() + std::chrono::duration_cast<Orologio::duration>(
                            std::chrono::duration<double>(attesa_riconnessione(c.tentativi)));
  ++c.tentativi;
}

void connetti(Collegamento& c) {
  // Blocks this thread for the name lookup and the TCP handshake only.
  const int rc = mosquitto_connect(c.mosq, c.imp.host.c_str(), c.imp.porta, kKeepalive);
  const int errore = errno;
  c.rifiuto.clear();
  c.causa.clear();
  if (rc == MOSQ_ERR_SUCCESS) {
    c.socket_aperto = true;
    return;
  }
  if (rc == MOSQ_ERR_TLS)
    c.causa = "errore TLS: certificato non valido o broker senza TLS";
  else
    c.causa = motivo_irraggiungibile(rc == MOSQ_ERR_ERRNO ? errore : 0);
  perso(c);
}

void chiudi(Collegamento& c) {
  if (!c.mosq) return;
  if (c.collegato) {
    // A clean disconnect sends no last will: say it ourselves.
    pubblica(c, {topic_disponibilita(c.imp.prefisso), "offline", true});
    const auto fine = Orologio::now() + std::chrono::seconds(1);
    while (Orologio::now() < fine && mosquitto_want_write(c.mosq))
      if (mosquitto_loop(c.mosq, 50, 1) != MOSQ_ERR_SUCCESS) break;
  }
  if (c.socket_aperto) {
    mosquitto_disconnect(c.mosq);
    mosquitto_loop(c.mosq, 50, 1);
  }
  mosquitto_destroy(c.mosq);
  c = Collegamento{};
  collegato_ = false;
  ritira_problema("mqtt");
  imposta_fase(FaseMqtt::spento, "");
}

void apri(Collegamento& c, const ImpostazioniMqtt& imp) {
  c.imp = imp;
  c.mosq = mosquitto_new(nullptr, true, &c);
  if (!c.mosq) {
    segnala_problema("mqtt", "Collegamento MQTT non avviato: memoria insufficiente");
    return;
  }
  const std::string disponibile = topic_disponibilita(imp.prefisso);
  mosquitto_will_set(c.mosq, disponibile.c_str(), 7, "offline", 1, true);
  if (!imp.utente.empty())
    mosquitto_username_pw_set(c.mosq, imp.utente.c_str(),
                              imp.password.empty() ? nullptr : imp.password.c_str());
  if (imp.tls) {
    mosquitto_int_option(c.mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
    mosquitto_tls_set(c.mosq, nullptr, "/etc/ssl/certs", nullptr, nullptr, nullptr);
  }
  mosquitto_connect_callback_set(c.mosq, al_collegamento);
  mosquitto_message_callback_set(c.mosq, al_messaggio);
  c.prossimo_tentativo = Orologio::now();
  imposta_fase(FaseMqtt::in_collegamento, "Collegamento a " + c.indirizzo() + " in corso");
}

void pubblica_stati(Collegamento& c) {
  const auto adesso = Orologio::now();
  if (adesso - c.ultimo_controllo < kOgniControllo) return;
  c.ultimo_controllo = adesso;
  const bool tutti = adesso - c.ultimo_completo >= kOgniCompleto;
  if (tutti) c.ultimo_completo = adesso;
  const Salute s = salute_attuale();
  std::vector<MessaggioMqtt> messaggi = messaggi_scoperta(s, c.imp.prefisso);
  for (auto& m : messaggi_stato(s, c.imp.prefisso)) messaggi.push_back(std::move(m));
  for (const MessaggioMqtt& m : da_inviare(messaggi, c.inviati, tutti)) pubblica(c, m);
}

void passo(Collegamento& c) {
  if (!c.mosq) return;
  if (!c.socket_aperto) {
    if (Orologio::now() >= c.prossimo_tentativo) connetti(c);
    return;
  }
  if (mosquitto_loop(c.mosq, 100, 1) != MOSQ_ERR_SUCCESS || mosquitto_socket(c.mosq) < 0) {
    perso(c);
    return;
  }
  if (c.collegato) pubblica_stati(c);
}

void corpo_thread() {
  Collegamento c;
  for (;;) {
    std::optional<Comando> r;
    {
      std::unique_lock l(m_);
      // Without a socket to watch, wait here instead of in mosquitto_loop.
      if (!nuova_ && !c.socket_aperto) cv_.wait_for(l, std::chrono::milliseconds(200));
      r.swap(nuova_);
    }
    try {
      if (r) {
        if (!(r->imp == c.imp) || !c.mosq || r->ferma) {
          chiudi(c);
          if (r->imp.attivo && !r->ferma) apri(c, r->imp);
        }
        c.ricevi = r->ricevi;
        if (r->ferma) {
          std::lock_guard l(m_);
          if (!nuova_) {  // no new start since the stop
            thread_vivo_ = false;
            cv_.notify_all();
            return;
          }
          continue;
        }
      }
      passo(c);
    } catch (const std::exception& e) {
      _log(std::string("mqtt: ") + e.what());
    } catch (...) {
      _log("mqtt: errore imprevisto");
    }
  }
}

}  // namespace

void configura_mqtt(const ImpostazioniMqtt& imp, RiceviStato ricevi) {
  static std::once_flag init;
  std::call_once(init, [] { mosquitto_lib_init(); });
  std::lock_guard l(m_);
  nuova_ = Comando{imp, std::move(ricevi), false};
  if (!thread_vivo_) {
    thread_vivo_ = true;
    std::thread(corpo_thread).detach();
  }
  cv_.notify_all();
}

void ferma_mqtt(double limite) {
  std::unique_lock l(m_);
  if (!thread_vivo_) return;
  nuova_ = Comando{ImpostazioniMqtt{}, nullptr, true};
  cv_.notify_all();
  cv_.wait_for(l, std::chrono::duration<double>(limite), [] { return !thread_vivo_; });
}

const char* nome_fase(FaseMqtt f) {
  switch (f) {
    case FaseMqtt::spento: return "spento";
    case FaseMqtt::in_collegamento: return "in_collegamento";
    case FaseMqtt::collegato: return "collegato";
    case FaseMqtt::irraggiungibile: return "irraggiungibile";
    case FaseMqtt::rifiutato: return "rifiutato";
  }
  return "spento";
}

StatoMqtt stato_mqtt() {
  StatoMqtt s;
  s.collegato = collegato_.load();
  s.scartati = scartati_.load();
  s.ricevuti = ricevuti_.load();
  std::lock_guard l(fase_m_);
  s.fase = fase_;
  s.messaggio = messaggio_;
  return s;
}

}  // namespace nvr
