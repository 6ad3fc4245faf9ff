// What "nothing was lost" means for an archive, checked from the outside after a fault: every
// finished segment on disk has exactly one index row, every row has its file, every file plays,
// and no hole in a camera's timeline is longer than the fault explains.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nvr::affidabilita {

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

// Whether ffprobe reads `file` as a video with a positive duration.
bool riproducibile(const std::string& file);

}  // namespace nvr::affidabilita
