// What health reporting costs: the standalone program recording 32 cameras, its CPU measured
// twice in the same run, first with MQTT and metrics off, then with the MQTT link to a real
// mosquitto broker started here and /metrics scraped every 15 s as a Prometheus server would.
// Cameras are the looped 1080p30 file of bench/camera_in_loop.py, 16 recorders on each.
//
//   bench_salute [--quick]
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "autonomo/programma_di_prova.h"
#include "bench/camera_in_loop.h"
#include "bench/misure.h"
#include "bench/tabella.h"
#include "bench/uso_processi.h"
#include "core/processo.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"

using nvr::autonomo::prova::attendi;
using nvr::autonomo::prova::Programma;
using nvr::bench::kNessuna;
using nvr::bench::riga;
using nvr::bench::secondi_da;
using nvr::testing::CameraRtsp;
using nvr::testing::CartellaTemporanea;
using Orologio = std::chrono::steady_clock;

namespace {

constexpr int kTelecamere = 32;
constexpr int kClientiPerCamera = 16;
constexpr double kScrape = 15;  // Prometheus's usual interval

// Scrapes /metrics with the token every kScrape seconds until dropped; keeps the durations.
class Raschiatore {
 public:
  Raschiatore(int porta, std::string token) : porta_(porta), token_(std::move(token)) {
    thread_ = std::thread([this] { corri(); });
  }
  ~Raschiatore() {
    {
      std::lock_guard l(m_);
      fine_ = true;
    }
    cv_.notify_all();
    thread_.join();
  }
  std::vector<double> durate() {
    std::lock_guard l(m_);
    return durate_;
  }
  int falliti() const { return falliti_; }
  std::size_t byte() const { return byte_; }

 private:
  void corri() {
    httplib::Client c("127.0.0.1", porta_);
    std::unique_lock l(m_);
    while (!fine_) {
      l.unlock();
      const auto t0 = Orologio::now();
      auto r = c.Get("/metrics", {{"Authorization", "Bearer " + token_}});
      const double d = secondi_da(t0);
      l.lock();
      if (r && r->status == 200) {
        durate_.push_back(d);
        byte_ = r->body.size();
      } else {
        ++falliti_;
      }
      cv_.wait_for(l, std::chrono::duration<double>(kScrape), [this] { return fine_; });
    }
  }
  int porta_;
  std::string token_;
  std::mutex m_;
  std::condition_variable cv_;
  bool fine_ = false;           // guarded by m_
  std::vector<double> durate_;  // guarded by m_
  std::atomic<int> falliti_{0};
  std::atomic<std::size_t> byte_{0};
  std::thread thread_;
};

bool porta_aperta(int porta) {
  httplib::Client c("127.0.0.1", porta);
  c.set_connection_timeout(1, 0);
  auto r = c.Get("/");  // any answer or a dropped request: something accepted the connection
  return r || r.error() != httplib::Error::Connection;
}

// A mosquitto broker on a free loopback port, anonymous.
struct Broker {
  CartellaTemporanea t;
  int porta = nvr::testing::porta_libera();
  std::shared_ptr<nvr::Processo> p;
  bool avvia() {
    std::ofstream(t / "mosquitto.conf")
        << "listener " << porta << " 127.0.0.1\nallow_anonymous true\n";
    auto a = nvr::avvia_processo({{"mosquitto", "-c", t / "mosquitto.conf"}});
    if (!a) return false;
    p = a.valore();
    return attendi([&] { return porta_aperta(porta); }, 10);
  }
  ~Broker() {
    if (!p) return;
    p->segnala(SIGTERM);
    if (!p->attendi(5)) p->segnala_gruppo(SIGKILL);
    p->attendi(5);
  }
};

}  // namespace

int main(int argc, char** argv) {
  const bool rapida = argc > 1 && std::string(argv[1]) == "--quick";
  const double finestra = rapida ? 45 : 180;

  std::vector<std::unique_ptr<CameraRtsp>> cams;
  for (int i = 0; i < (kTelecamere + kClientiPerCamera - 1) / kClientiPerCamera; ++i) {
    std::string motivo;
    auto c = nvr::bench::avvia_camera_in_loop(&motivo);
    if (!c) {
      std::fprintf(stderr, "telecamera di prova non disponibile: %s\n", motivo.c_str());
      return 1;
    }
    cams.push_back(std::move(c));
  }
  CartellaTemporanea t;
  auto p = Programma::su(t / "dati", {"--segmento-prova", "60"});
  if (!p->pronto() || !p->accedi()) {
    std::fprintf(stderr, "nvr non parte: %s\n", p->errori().c_str());
    return 1;
  }
  for (int i = 0; i < kTelecamere; ++i) {
    auto r = p->post("/api/telecamere", {{"nome", "Cam" + std::to_string(i + 1)},
                                         {"url", cams[i / kClientiPerCamera]->url()}});
    if (r.status != 200 ||
        p->post("/api/nvr/camera", {{"id", r.json["id"]}, {"attiva", true}, {"modo", "sempre"}})
                .status != 200)
      return 1;
  }
  if (p->post("/api/nvr/config", {{"attivo", 1}}).status != 200) return 1;
  const pid_t pid = p->pid();
  if (!attendi([&] { return nvr::bench::figli(pid, "ffmpeg").size() == kTelecamere; }, 90)) {
    std::fprintf(stderr, "i registratori non partono tutti\n");
    return 1;
  }
  std::this_thread::sleep_for(std::chrono::seconds(15));  // past connections and first index runs

  auto misura = [&] {
    const double c0 = nvr::bench::cpu_secondi(pid);
    const auto t0 = Orologio::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(finestra));
    return (nvr::bench::cpu_secondi(pid) - c0) / secondi_da(t0);  // cores
  };
  const double spento = misura();

  Broker broker;
  if (!broker.avvia()) {
    std::fprintf(stderr, "mosquitto non parte\n");
    return 1;
  }
  const std::string token = "banco-salute-0123456789";
  auto r = p->post(
      "/api/impostazioni",
      {{"mqtt",
        {{"attivo", true}, {"host", "127.0.0.1"}, {"porta", broker.porta}, {"prefisso", "nvr"}}},
       {"metriche", {{"token", token}}}});
  if (r.status != 200) {
    std::fprintf(stderr, "impostazioni rifiutate: %s\n", r.corpo.c_str());
    return 1;
  }
  std::this_thread::sleep_for(std::chrono::seconds(5));  // connected, discovery sent
  double acceso = 0;
  std::vector<double> durate;
  int falliti = 0;
  std::size_t byte = 0;
  {
    Raschiatore raschia(p->porta(), token);
    acceso = misura();
    durate = raschia.durate();
    falliti = raschia.falliti();
    byte = raschia.byte();
  }
  std::sort(durate.begin(), durate.end());
  const std::string prova = "salute 32 tel.";
  riga(prova, "CPU nvr, MQTT e metriche spenti", 100 * spento, kNessuna, "% core");
  riga(prova, "CPU nvr, MQTT e /metrics ogni 15 s", 100 * acceso, 100 * spento, "% core");
  riga(prova, "differenza", 100 * (acceso - spento), kNessuna, "% core", "<= 1% di un core");
  riga(prova, "risposta /metrics (mediana)",
       durate.empty() ? NAN : 1000 * durate[durate.size() / 2], kNessuna, "ms");
  // A link that never connected would have measured nothing: its retained availability says.
  std::string stato;
  if (FILE* f = ::popen(("mosquitto_sub -h 127.0.0.1 -p " + std::to_string(broker.porta) +
                         " -t nvr/stato -C 1 -W 5 2>/dev/null")
                            .c_str(),
                        "r")) {
    char b[64];
    while (std::fgets(b, sizeof b, f)) stato += b;
    ::pclose(f);
  }
  riga(prova, "MQTT: disponibilita' pubblicata", stato.starts_with("online") ? 1 : 0, kNessuna,
       "si'/no", "1");
  riga(prova, "corpo /metrics", static_cast<double>(byte) / 1024, kNessuna, "KiB",
       falliti ? std::to_string(falliti) + " letture fallite" : "");
  return 0;
}
