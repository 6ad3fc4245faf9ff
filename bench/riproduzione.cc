// Playback: one large indexed segment played through the standalone program's video endpoint,
// against nginx serving the same file on loopback (sendfile on), both measured in this run with
// the same client: a whole GET, rounds of 100 random byte ranges taken by the two servers in turn,
// and the time to the first byte of a small range request.
//
//   bench_riproduzione [--quick]      (--quick: a 20 MB segment instead of 150 MB)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "autonomo/programma_di_prova.h"
#include "bench/cliente_http.h"
#include "bench/misure.h"
#include "bench/tabella.h"
#include "core/config.h"
#include "core/db.h"
#include "core/stato.h"
#include "testing/ambiente.h"
#include "web/api_registrazioni.h"

namespace fs = std::filesystem;
using nvr::bench::chiedi;
using nvr::bench::quantile;
using nvr::bench::Ricevuta;
using nvr::bench::secondi_da;

namespace {

void muori(const std::string& cosa) {
  std::fprintf(stderr, "bench_riproduzione: %s\n", cosa.c_str());
  std::exit(1);
}

// A server under test: its port, the path of the file on it, the headers it needs.
struct Server {
  int porta = 0;
  std::string percorso;
  std::string intestazioni;  // e.g. the session cookie
  int pid = 0;               // the server process; its children (nginx's worker) count too
};

// CPU seconds of `pid` and its direct children: a figure that the other work on a shared
// machine disturbs far less than wall-clock throughput.
double cpu_con_figli(int pid) {
  double totale = nvr::bench::cpu_di(pid);
  std::ifstream figli("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) +
                      "/children");
  for (int figlio; figli >> figlio;) totale += nvr::bench::cpu_di(figlio);
  return totale;
}

bool risponde(int porta) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(porta));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  ::close(fd);
  return ok;
}

struct Risultati {
  double intero_mb_s = 0;    // median of the whole GETs
  double cpu_s_gb = 0;       // server CPU seconds per GB sent by the whole GETs
  double primo_byte_ms = 0;  // median over the small ranges
  bool giusto = true;
};

void sbaglia(const Server& s, bool& giusto, const std::string& cosa) {
  std::fprintf(stderr, "bench_riproduzione: porta %d: %s\n", s.porta, cosa.c_str());
  giusto = false;
}

// 100 ranges of 1 MiB at random places from `seme`, as a player seeking; MB/s over all of them.
double intervalli(const Server& s, const std::string& contenuto, unsigned seme, bool& giusto) {
  std::mt19937_64 caso(seme);
  const std::size_t mb = 1 << 20;
  double tempo = 0;
  std::size_t byte = 0;
  for (int i = 0; i < 100; ++i) {
    const std::size_t da = caso() % (contenuto.size() - mb);
    const std::string range =
        "Range: bytes=" + std::to_string(da) + "-" + std::to_string(da + mb - 1) + "\r\n";
    auto t0 = std::chrono::steady_clock::now();
    Ricevuta r = chiedi(s.porta, s.percorso, s.intestazioni + range, true);
    tempo += secondi_da(t0);
    byte += r.byte;
    if (r.status != 206 || r.corpo.size() != mb ||
        std::memcmp(r.corpo.data(), contenuto.data() + da, mb) != 0)
      sbaglia(s, giusto, "Range " + std::to_string(da) + ": " + std::to_string(r.status));
  }
  return static_cast<double>(byte) / 1e6 / tempo;
}

Risultati misura(const Server& s, const std::string& contenuto, int volte_intero, int volte_ttfb) {
  Risultati ris;
  chiedi(s.porta, s.percorso, s.intestazioni, false);  // into the page cache, both alike

  std::vector<double> velocita;
  const double cpu_prima = cpu_con_figli(s.pid);
  for (int i = 0; i < volte_intero; ++i) {
    auto t0 = std::chrono::steady_clock::now();
    Ricevuta r = chiedi(s.porta, s.percorso, s.intestazioni, false);
    const double t = secondi_da(t0);
    if (r.status != 200 || r.byte != contenuto.size())
      sbaglia(s, ris.giusto,
              "GET intero: " + std::to_string(r.status) + ", " + std::to_string(r.byte) + " byte");
    velocita.push_back(static_cast<double>(r.byte) / 1e6 / t);
  }
  ris.intero_mb_s = quantile(velocita, 0.5);
  ris.cpu_s_gb = (cpu_con_figli(s.pid) - cpu_prima) /
                 (static_cast<double>(contenuto.size()) * volte_intero / 1e9);

  std::mt19937_64 caso(42);
  std::vector<double> primi;
  for (int i = 0; i < volte_ttfb; ++i) {
    const std::size_t da = caso() % (contenuto.size() - 100);
    Ricevuta r = chiedi(s.porta, s.percorso,
                        s.intestazioni + "Range: bytes=" + std::to_string(da) + "-" +
                            std::to_string(da + 99) + "\r\n",
                        false);
    if (r.status != 206 || r.byte != 100)
      sbaglia(s, ris.giusto, "Range piccolo: " + std::to_string(r.status));
    primi.push_back(r.primo_byte_s * 1000);
  }
  ris.primo_byte_ms = quantile(primi, 0.5);
  return ris;
}

// Where a Range answer's time goes before the first byte, measured in this process on the same
// database: the handler alone (connection, query, stat), and the connection with its query.
struct Scomposizione {
  double gestore_ms = 0;
  double connessione_ms = 0;
};

Scomposizione scomponi(const std::string& db_file, std::int64_t id, int volte) {
  nvr::testing::HostDiProva prova{nvr::testing::HostDiProva::Aggancia::kNo};
  prova.host->DB_FILE = db_file;
  nvr::A.imposta_se_assente(prova.host);
  std::vector<double> gestore, connessione;
  nvr::Richiesta r;
  r.metodo = "GET";
  r.rid = id;
  for (int i = 0; i < volte; ++i) {
    auto t0 = std::chrono::steady_clock::now();
    nvr::Risposta risposta = nvr::api_video(r);
    gestore.push_back(secondi_da(t0) * 1000);
    if (!risposta.file) muori("api_video in processo: nessun file");
    t0 = std::chrono::steady_clock::now();
    {
      nvr::Connessione c = nvr::_db();
      c.righe("SELECT file FROM nvr_registrazioni WHERE id=?", {id});
    }
    connessione.push_back(secondi_da(t0) * 1000);
  }
  return {quantile(gestore, 0.5), quantile(connessione, 0.5)};
}

// Any bytes will do: the program serves the file as it is.
std::string contenuto_di(std::size_t n) {
  std::string s(n, '\0');
  std::mt19937_64 caso(7);
  for (std::size_t i = 0; i + 8 <= n; i += 8) {
    const std::uint64_t v = caso();
    std::memcpy(s.data() + i, &v, 8);
  }
  std::memcpy(s.data() + 4, "ftyp", 4);
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  const bool rapido = argc > 1 && std::string(argv[1]) == "--quick";
  const std::size_t dimensione = (rapido ? 20 : 150) * std::size_t{1000000};
  const int volte_intero = rapido ? 3 : 5;
  const int volte_ttfb = rapido ? 50 : 200;

  nvr::testing::CartellaTemporanea cartella;
  const std::string dati = cartella / "dati";
  const std::string file = dati + "/archivio/Cam1/2026-01-15/10-00-00.mp4";
  const std::string contenuto = contenuto_di(dimensione);
  fs::create_directories(fs::path(file).parent_path());
  std::ofstream(file, std::ios::binary)
      .write(contenuto.data(), static_cast<std::streamsize>(contenuto.size()));

  // The segment indexed in the program's database, as the recorder files it.
  std::int64_t id = 0;
  {
    nvr::testing::HostDiProva prova{nvr::testing::HostDiProva::Aggancia::kNo};
    prova.host->DB_FILE = dati + "/nvr.db";
    nvr::A.imposta_se_assente(prova.host);
    nvr::Connessione c(prova.host->DB_FILE);
    c.esegui(
        "CREATE TABLE IF NOT EXISTS tapo_cameras (id INTEGER PRIMARY KEY, name TEXT, "
        "rtsp_url TEXT)");
    c.esegui("INSERT INTO tapo_cameras (id, name, rtsp_url) VALUES (1, 'Cam1', 'rtsp://x/1')");
    c.commit();
    nvr::_init_db();
    nvr::Config cfg;
    cfg.cartella = dati + "/archivio";
    nvr::_salva_config(cfg);
    const double inizio = 1768471200;  // 2026-01-15 10:00 UTC
    c.esegui(
        "INSERT INTO nvr_registrazioni (cam_id, inizio, fine, file, dimensione, motivo) VALUES "
        "(1, ?, ?, ?, ?, 'continua')",
        {inizio, inizio + 300, file, static_cast<std::int64_t>(dimensione)});
    c.commit();
    id = nvr::come_intero(c.righe("SELECT MAX(id) FROM nvr_registrazioni")[0][0]);
  }

  auto programma = nvr::autonomo::prova::Programma::su(dati, {"--nuova-password"});
  if (!programma->pronto(60)) muori("il programma non parte: " + programma->errori());
  if (!programma->accedi()) muori("accesso non riuscito");
  // The engine's first pass comes about ten seconds after the start; let it pass first.
  std::this_thread::sleep_for(std::chrono::seconds(12));
  nvr::bench::attendi_quiete(programma->pid(), 60);
  auto cookie = programma->get("/api/nvr/stato");  // proves the session works
  if (cookie.status != 200) muori("stato: " + std::to_string(cookie.status));

  // nginx from a throw-away configuration: its own pid, logs and temporary folders.
  const std::string conf = cartella / "nginx.conf";
  const int porta_nginx = nvr::testing::porta_libera();
  for (const char* d : {"corpo", "proxy", "fastcgi", "uwsgi", "scgi"})
    fs::create_directories(cartella / d);
  std::ofstream(conf) << "user root;\nworker_processes 1;\npid " << (cartella / "nginx.pid")
                      << ";\nerror_log " << (cartella / "errori.log")
                      << ";\nevents { worker_connections 64; }\nhttp {\n  access_log off;\n"
                      << "  sendfile on;\n  types { video/mp4 mp4; }\n"
                      << "  client_body_temp_path " << (cartella / "corpo") << ";\n"
                      << "  proxy_temp_path " << (cartella / "proxy") << ";\n"
                      << "  fastcgi_temp_path " << (cartella / "fastcgi") << ";\n"
                      << "  uwsgi_temp_path " << (cartella / "uwsgi") << ";\n"
                      << "  scgi_temp_path " << (cartella / "scgi") << ";\n"
                      << "  server {\n    listen 127.0.0.1:" << porta_nginx << ";\n    root "
                      << dati << "/archivio;\n  }\n}\n";
  nvr::autonomo::prova::Programma nginx(
      {"nginx", "-e", cartella / "errori.log", "-c", conf, "-g", "daemon off;"}, true);
  if (!nvr::autonomo::prova::attendi([&] { return risponde(porta_nginx); }, 20))
    muori("nginx non risponde: " + nginx.errori());

  // The session cookie the program set at login, sent by the same client.
  std::string sessione;
  {
    auto r = programma->chiama("POST", "/api/accesso",
                               nvr::Json{{"password", programma->password()}}.dump());
    const std::string c = r.intestazione("Set-Cookie");
    sessione = "Cookie: " + c.substr(0, c.find(';')) + "\r\n";
  }
  const Server nvr_srv{programma->porta(), "/api/nvr/video/" + std::to_string(id), sessione,
                       programma->pid()};
  const Server nginx_srv{porta_nginx, "/Cam1/2026-01-15/10-00-00.mp4", "", nginx.pid()};

  Risultati n = misura(nvr_srv, contenuto, volte_intero, volte_ttfb);
  Risultati b = misura(nginx_srv, contenuto, volte_intero, volte_ttfb);
  // One round of ranges takes a few tens of milliseconds, so a single round mostly measures
  // what else the machine did meanwhile: the rounds alternate between the servers, each round
  // with the same ranges for both, and the medians are compared.
  std::vector<double> intervalli_n, intervalli_b;
  for (unsigned giro = 0; giro < (rapido ? 5u : 15u); ++giro) {
    const bool prima_nvr = giro % 2 == 0;
    const Server& primo = prima_nvr ? nvr_srv : nginx_srv;
    const Server& secondo = prima_nvr ? nginx_srv : nvr_srv;
    const double a = intervalli(primo, contenuto, giro, prima_nvr ? n.giusto : b.giusto);
    const double z = intervalli(secondo, contenuto, giro, prima_nvr ? b.giusto : n.giusto);
    intervalli_n.push_back(prima_nvr ? a : z);
    intervalli_b.push_back(prima_nvr ? z : a);
  }
  const Scomposizione parti = scomponi(dati + "/nvr.db", id, volte_ttfb);

  const std::string prova = "riproduzione";
  const std::string mb = std::to_string(dimensione / 1000000) + " MB";
  nvr::bench::riga(prova, "GET intero di " + mb + " (mediana)", n.intero_mb_s, b.intero_mb_s,
                   "MB/s", ">=1.0x");
  nvr::bench::riga(prova, "CPU del server per GB (GET interi)", n.cpu_s_gb, b.cpu_s_gb, "s/GB");
  nvr::bench::riga(prova, "100 Range casuali da 1 MiB (mediana dei giri)",
                   quantile(intervalli_n, 0.5), quantile(intervalli_b, 0.5), "MB/s", ">=0.8x");
  nvr::bench::riga(prova, "primo byte di un Range (mediana)", n.primo_byte_ms, b.primo_byte_ms,
                   "ms", "<=2x");
  nvr::bench::riga(prova, "  di cui api_video in processo (mediana)", parti.gestore_ms,
                   nvr::bench::kNessuna, "ms");
  nvr::bench::riga(prova, "  di cui connessione SQLite + SELECT (mediana)", parti.connessione_ms,
                   nvr::bench::kNessuna, "ms");
  return n.giusto && b.giusto ? 0 : 1;
}
