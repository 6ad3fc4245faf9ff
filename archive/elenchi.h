// Reading the index for browsing and playback: the days that have recordings, one camera's
// segments and events of a day, one segment's file. Every function opens its own short
// connection, takes no lock, and throws ErroreDb when the database fails.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/config.h"

namespace nvr {

// The machine-local days ("YYYY-MM-DD") on which a segment of camera `cam` starts; of every
// camera and of the rows without one when `cam` is absent. A row without a start counts for
// 1970-01-01. One index seek per day with recordings, so an archive of millions of rows answers
// quickly.
std::set<std::string> giorni_con_registrazioni(std::optional<CamId> cam);

struct SegmentoElencato {
  std::int64_t id = 0;
  double inizio = 0.0;
  double fine = 0.0;
  std::int64_t dimensione = 0;
  std::string motivo;
  std::string file;
};

struct EventoElencato {
  double ts = 0.0;
  std::string entita;
  std::string stato;
};

struct GiornataCamera {
  std::vector<SegmentoElencato> segmenti;  // those overlapping [inizio, fine), by start
  std::vector<EventoElencato> eventi;      // those with inizio <= ts < fine, by time
};

// Camera `cam`'s segments that overlap [inizio, fine) (start before `fine`, end after `inizio`)
// and its events in it. Reads only the rows that can reach into the interval: no segment is
// longer than the bound the totals keep on the camera's lengths (all rows that start before
// `fine` while the camera has an end stored as text).
GiornataCamera giornata_camera(CamId cam, double inizio, double fine);

// The file of index row `id` ("" when the row holds none); absent when there is no such row.
std::optional<std::string> file_registrazione(std::int64_t id);

// Whether the index holds at least one row of camera `cam` (one index seek).
bool camera_nell_indice(CamId cam);

// Of `ids`, those that are index rows now; asked in batches of a few hundred.
std::set<std::int64_t> righe_presenti(const std::vector<std::int64_t>& ids);

}  // namespace nvr
