// Sums over the index: the archive overview per camera and day, and the figures the status page
// shows for each camera. Every function opens its own short connection, takes no lock, and
// throws ErroreDb when the database fails.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/config.h"
#include "core/tempo.h"

namespace nvr {

struct Somma {
  std::int64_t n = 0;
  double byte = 0;
  double sec = 0;  // an end before its start adds nothing
  void aggiungi(double dimensione, double durata);
};

struct RiepilogoCamera {
  Somma totale;
  std::map<std::string, Somma> giorni;  // by local day "YYYY-MM-DD" of the start in `z`
};

struct RiepilogoArchivio {
  std::int64_t righe = 0;
  double byte = 0;
  std::map<CamId, RiepilogoCamera> camere;  // only cameras that have rows (no cam_id reads 0)
};

// Reads every row once, in the table's own order; days in zone `z`.
RiepilogoArchivio riepilogo_archivio(Zona z);

struct TotaliCamera {
  std::int64_t n = 0;
  double byte = 0;
  std::optional<double> ultima_fine;  // absent without rows
};

// For each of `cams`: count and size from the totals kept in step with the index; the newest
// end from the rows started within the camera's longest length of its newest start (a plain
// read of all its rows only for odd rows: ends stored as text, ends before their start).
std::map<CamId, TotaliCamera> totali_camere(const std::vector<CamId>& cams);

// Rows of the index with an integer camera id (all the recorder writes), from the totals kept
// in step with it: one row per camera is read, however long the index.
std::int64_t righe_indice();

struct RecentiCamera {
  double byte = 0;                     // size of the segments that started at or after `da`
  std::optional<double> primo_inizio;  // the oldest of those starts; absent without any
};

// For each of `cams`: its segments started at or after `da`, a range of the (cam_id, inizio)
// index, so the cost grows with the rows since `da`, not the table.
std::map<CamId, RecentiCamera> recenti_camere(const std::vector<CamId>& cams, double da);

}  // namespace nvr
