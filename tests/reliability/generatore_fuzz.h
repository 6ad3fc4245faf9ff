// The fuzzer's requests: drawn from a seeded generator over every route of the standalone
// program, the recorder's and the host's, with the bodies, values, paths, cookies and headers
// that no page sends. It never draws a request that would legitimately destroy recordings or
// move the archive (those are the administrator's actions, tested apart), nor one that would
// unmount a real file system of the machine.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "core/json.h"

namespace nvr::affidabilita {

// What the fuzzer aims at, fixed before the run.
struct Bersagli {
  int porta = 0;
  std::string cookie, cookie_uscito;
  std::int64_t cam = 0, riserva = 0;  // the recording camera and a spare one that cannot record
  std::string dati, archivio, fuori, sfoglia, marca;
  std::vector<std::string> segreti;  // texts planted in files that must never be served
};

// One fuzzed request and what may be accepted of its answer.
struct Colpo {
  std::string rotta;                  // for the statistics and failure messages
  std::string testo;                  // the bytes sent
  bool puo_500 = false;               // a bad number left to the host's generic error
  bool http_rotto = false;            // broken at the HTTP level: no answer is acceptable
  std::optional<std::int64_t> video;  // the recording asked for, to check the bytes served
  bool cartelle = false;
  double attesa = 60;
};

// Routes where a number that cannot be read is left to the host's generic error (a 500 naming
// the field), as the recorder does not catch it:
//   POST /api/nvr/config  segmento_sec, giorni (not an integer), spazio_min_gb (not a number),
//                         destinazione (not an object), cartella (not a text)
//   POST /api/nvr/camera  post_roll (not a number)
// Every other route, the host's own included, answers 4xx to bad input and never 500.
class Generatore {
 public:
  Generatore(std::uint64_t seme, Bersagli b);

  Colpo prossima();

  int tra(int a, int b) { return std::uniform_int_distribution<int>(a, b)(rng_); }
  bool caso(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }
  template <class T>
  T scegli(const std::vector<T>& v) {
    return v[static_cast<std::size_t>(tra(0, static_cast<int>(v.size()) - 1))];
  }
  std::vector<std::int64_t> rid_noti;    // indexed recordings, refreshed by the caller
  std::vector<std::int64_t> cam_ospiti;  // cameras the fuzzer added to the host table

 private:
  // ---- values ----
  Json numero();
  std::string testo();
  Json valore(int profondita = 2);

  // ---- bodies of the recorder's routes ----
  // Bodies that could really change where or whether recording happens are left out on
  // purpose: an empty or permitted `cartella`, a USB or network destination that would be
  // saved, `attivo` off and a huge `spazio_min_gb` (which would really delete recordings to
  // free space). Those are an administrator's legitimate actions, not abuse.
  Json corpo_config();
  Json id_camera();
  Json corpo_camera();
  Json corpo_monta();
  Json nome();
  std::string testo_cam();
  std::string giorno();

  // ---- requests ----
  Colpo get(const std::string& bersaglio) { return richiesta("GET", bersaglio, ""); }
  Colpo post(const std::string& percorso, const Json& corpo);
  std::string corpo_testo(const Json& corpo);
  std::string query(const std::vector<std::pair<std::string, std::string>>& coppie);
  std::string cookie(const std::string& percorso);
  Colpo richiesta(std::string metodo, std::string bersaglio, std::string corpo);
  // Path tricks that must not reach anything but the route (or a 404).
  std::string trucca(std::string b);
  Colpo video();
  // Deletions that must not delete anything: ids that are not indexed, and bulk bodies that
  // must be refused (or only drop rows whose file is gone, of which there are none).
  Colpo elimina_innocuo();
  Colpo host();
  // Stream addresses the spare camera's recorder may be started with: they reach ffmpeg as
  // one argument each, whatever they hold (an argument past the kernel's 128 KiB limit cannot
  // be started at all).
  Json url();
  Colpo pagina();
  // Requests broken at the HTTP level.
  Colpo rotto();

  static constexpr const char* kNonUtf8 = "\xff\xfe\xc3(";
  static constexpr const char* kSegnaposto = "@@non-utf8@@";

  std::mt19937_64 rng_;
  Bersagli b_;
  std::vector<std::string> basi_, smontabili_;
};

}  // namespace nvr::affidabilita
