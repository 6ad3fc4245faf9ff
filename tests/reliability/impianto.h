// The standalone program recording the real RTSP test camera, as the reliability tests drive
// it: started, killed, restarted on the same data folder, spoken to over real HTTP. Every start
// renews the administrator password (the program prints it only then), so a restarted program
// can be logged into again.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "autonomo/programma_di_prova.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"
#include "tests/reliability/integrita.h"

namespace nvr::affidabilita {

namespace prova = autonomo::prova;

// True in the build that runs the long variants (minutes each).
inline constexpr bool kProveLunghe = NVR_PROVE_LUNGHE;

class Impianto {
 public:
  // A data folder of its own under a temporary folder, unless `dati` names one.
  explicit Impianto(std::string dati = "");
  ~Impianto();  // stops the program (SIGTERM, then SIGKILL) and the camera

  // Starts the test camera; "" when it runs, else why it cannot (the test then skips).
  std::string avvia_telecamera();
  testing::CameraRtsp& telecamera() { return *camera_; }

  // Starts the program on the data folder with `altro` arguments, waits until it listens and
  // logs in. False (with the program's output in `perche`) when it does not come up.
  bool avvia(std::vector<std::string> altro = {}, std::string* perche = nullptr);
  // The usual opening of a test: starts the program, adds camera `nome` on the test camera,
  // switches recording on with segments of `segmento` s and waits up to 90 s for `righe` indexed
  // rows. Fails with the program's output; `cam` receives the camera's id.
  ::testing::AssertionResult registra_fino_a(const std::string& nome, int righe, std::int64_t* cam,
                                             int segmento = 3);
  // Adds a camera recording always from `url` (the test camera when empty); its id, 0 on failure.
  std::int64_t aggiungi_camera(const std::string& nome, const std::string& url = "");
  // Segment length in seconds, written into the database (the API keeps it ≥ 60 s, and every
  // configuration saved through the API brings it back there: call this after them); the next
  // engine pass restarts the recorders with it.
  void segmenti_di(int secondi);
  // Switches recording on or off through the API; the HTTP status.
  int registra(bool si);

  // SIGKILL to the program alone: its recorders keep running, as after a crash.
  void uccidi();
  // SIGTERM and wait: the exit status, nothing when it did not end within `secondi`.
  std::optional<int> ferma(double secondi = 40);
  bool in_esecuzione() const;

  prova::Programma& programma() { return *programma_; }
  const std::string& dati() const { return dati_; }
  std::string db_file() const { return dati_ + "/nvr.db"; }
  std::string archivio() const { return dati_ + "/archivio"; }
  // Everything the program wrote on stdout and stderr over all its starts so far.
  std::string tutto_il_log() const;
  // The administrator passwords printed so far, one per start.
  const std::vector<std::string>& password() const { return password_; }

  // Rows in the index right now, read from the database file.
  int righe_indicizzate() const;
  // The check of the whole archive (see integrita.h); stop the program first.
  Integrita integrita(bool ffprobe = true) const {
    return verifica_integrita(db_file(), archivio(), ffprobe);
  }

 private:
  void archivia_log();

  std::unique_ptr<testing::CartellaTemporanea> temporanea_;
  std::string dati_;
  std::unique_ptr<testing::CameraRtsp> camera_;
  std::unique_ptr<prova::Programma> programma_;
  std::string log_passati_;
  std::vector<std::string> password_;
};

// The ffmpeg recorders running on the machine that write below `cartella`.
std::vector<pid_t> registratori_in(const std::string& cartella);

}  // namespace nvr::affidabilita
