// The standalone program recording the real RTSP test camera, as the reliability tests drive it:
// started, killed, restarted on the same data folder, spoken to over real HTTP. Every start
// renews the administrator password (printed only then), so a restarted program can be logged
// into again.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "autonomo/programma_di_prova.h"
#include "core/db.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"

namespace nvr::affidabilita {

// What "nothing was lost" means for an archive, checked from the outside after a fault: every
// finished segment on disk has exactly one index row, every row has its file, every file plays.
// The holes in a camera's timeline are judged by the caller, who knows the fault.
struct Integrita {
  int file = 0, righe = 0;  // finished segments on disk; rows of the index
  std::vector<std::string> senza_riga, senza_file, doppi, illeggibili;  // the defects, by file
  std::vector<std::string> in_corso;  // files still in in-progress folders
  // Over 1 s from the end of one indexed segment of a camera to the start of its next.
  std::vector<std::pair<double, double>> buchi;

  int buchi_oltre(double secondi) const;
  bool coerente() const;
  std::string descrizione() const;  // for failure messages
};

// Checks the archive below `archivio` against the index in `db_file`; run it with the program
// stopped, or files being moved look lost. `ffprobe` false skips playing every file.
Integrita verifica_integrita(const std::string& db_file, const std::string& archivio,
                             bool ffprobe = true);

namespace prova = autonomo::prova;
using prova::attendi;

// True in the build that runs the long variants (bigger figures, minutes each).
inline constexpr bool kProveLunghe = NVR_PROVE_LUNGHE;

double adesso();  // epoch seconds
// The first column of the first row of `sql` on `db_file`, as an integer.
std::int64_t scalare(const std::string& db_file, const std::string& sql,
                     const std::vector<Valore>& parametri = {});

class Impianto {
 public:
  // A data folder of its own under a temporary folder.
  ~Impianto();  // stops the program (SIGTERM, then SIGKILL) and the camera

  // Starts the test camera: "" when it runs, else why not (ffmpeg missing included).
  std::string avvia_telecamera();
  testing::CameraRtsp& telecamera() { return *camera_; }

  // Starts the program with `altro` arguments, waits until it listens and logs in; a failure
  // carries the program's output.
  ::testing::AssertionResult avvia(std::vector<std::string> altro = {});
  // On the running program: switches recording on with the settings `impostazioni` written
  // straight into the database (the API keeps segments of 60 s or more and 0.5 GB free), adds
  // camera "Ingresso" recording always from the test camera (its id in cam()), and waits up to
  // 90 s for `righe` rows.
  ::testing::AssertionResult registra(int righe, const std::string& impostazioni = "segmento_sec=3",
                                      const std::vector<Valore>& parametri = {});
  std::int64_t cam() const { return cam_; }
  // Runs `sql` on the program's database and commits.
  void sql(const std::string& sql, const std::vector<Valore>& parametri = {}) const;

  void uccidi();  // SIGKILL to the program alone: its recorders keep running, as after a crash
  // SIGTERM and wait: the exit status, nothing when it did not end within `secondi`.
  std::optional<int> ferma(double secondi = 40);
  // Stops the program (it must exit 0) and checks the archive below `archivio` (by default the
  // data folder's): consistent, and no hole longer than `buco` seconds.
  ::testing::AssertionResult ferma_e_verifica(double buco, std::string archivio = "",
                                              bool ffprobe = true);
  bool in_esecuzione() const;

  prova::Programma& programma() { return *programma_; }
  const std::string& dati() const { return dati_; }
  std::string db_file() const { return dati_ + "/nvr.db"; }
  std::string archivio() const { return dati_ + "/archivio"; }
  std::string tutto_il_log() const;  // stdout and stderr of every start so far
  const std::string& password() const { return password_; }  // printed by the last start
  int righe_indicizzate() const;
  Integrita integrita(bool ffprobe = true) const {  // stop the program first
    return verifica_integrita(db_file(), archivio(), ffprobe);
  }

 private:
  testing::CartellaTemporanea temporanea_;
  std::string dati_ = temporanea_ / "dati";
  std::unique_ptr<testing::CameraRtsp> camera_;
  std::unique_ptr<prova::Programma> programma_;
  std::string log_passati_, password_;
  std::int64_t cam_ = 0;
};

// The ffmpeg recorders running on the machine that write below `cartella`.
std::vector<pid_t> registratori_in(const std::string& cartella);

}  // namespace nvr::affidabilita
