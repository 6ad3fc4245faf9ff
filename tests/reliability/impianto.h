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
#include <vector>

#include "autonomo/programma_di_prova.h"
#include "core/db.h"
#include "testing/ambiente.h"
#include "testing/camera_rtsp.h"

namespace nvr::affidabilita {

// What "nothing was lost" means for an archive, checked from the outside after a fault: every
// finished segment on disk has exactly one index row, every row has its file, every file plays,
// and no hole in a camera's timeline is longer than the fault explains.
// A hole in one camera's timeline: from the end of one indexed segment to the start of the next.
struct Buco {
  std::int64_t cam_id = 0;
  double da = 0, a = 0;  // epoch seconds
  double secondi() const { return a - da; }
};

struct Integrita {
  int file = 0, righe = 0;               // finished segments on disk; rows of the index
  std::vector<std::string> senza_riga;   // finished files the index does not know
  std::vector<std::string> senza_file;   // rows whose file is gone
  std::vector<std::string> doppi;        // files indexed more than once
  std::vector<std::string> illeggibili;  // files ffprobe cannot read as video
  std::vector<std::string> in_corso;     // files still in in-progress folders
  std::vector<Buco> buchi;               // every hole longer than 1 s

  std::vector<Buco> buchi_oltre(double secondi) const;
  // Disk, index and files agree (holes are judged by the caller, who knows the fault).
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
  // Starts the program, adds camera `nome` on the test camera, switches recording on with
  // segments of `segmento` s and waits up to 90 s for `righe` rows; `cam` gets the camera's id.
  ::testing::AssertionResult registra_fino_a(const std::string& nome, int righe, std::int64_t* cam,
                                             int segmento = 3);
  // Adds a camera recording always from the test camera; its id, 0 on failure.
  std::int64_t aggiungi_camera(const std::string& nome);
  // Segment length written into the database (the API keeps it ≥ 60 s and brings it back there
  // on every saved configuration: call this after them).
  void segmenti_di(int secondi);
  int registra(bool si);  // recording on or off through the API; the HTTP status

  void uccidi();  // SIGKILL to the program alone: its recorders keep running, as after a crash
  // SIGTERM and wait: the exit status, nothing when it did not end within `secondi`.
  std::optional<int> ferma(double secondi = 40);
  bool in_esecuzione() const;

  prova::Programma& programma() { return *programma_; }
  const std::string& dati() const { return dati_; }
  std::string db_file() const { return dati_ + "/nvr.db"; }
  std::string archivio() const { return dati_ + "/archivio"; }
  std::string tutto_il_log() const;  // stdout and stderr of every start so far
  const std::vector<std::string>& password() const { return password_; }  // one per start
  int righe_indicizzate() const;
  Integrita integrita(bool ffprobe = true) const {  // stop the program first
    return verifica_integrita(db_file(), archivio(), ffprobe);
  }

 private:
  testing::CartellaTemporanea temporanea_;
  std::string dati_ = temporanea_ / "dati";
  std::unique_ptr<testing::CameraRtsp> camera_;
  std::unique_ptr<prova::Programma> programma_;
  std::string log_passati_;
  std::vector<std::string> password_;
};

// The ffmpeg recorders running on the machine that write below `cartella`.
std::vector<pid_t> registratori_in(const std::string& cartella);

}  // namespace nvr::affidabilita
