// Choosing and dropping index rows for deletion: by a selection (a camera, a day, both, or
// everything) or one row by id. Only the index: the caller removes the files first. Every
// function opens its own short connection, takes no lock, and throws ErroreDb when the database
// fails.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/config.h"

namespace nvr {

struct Selezione {
  std::optional<std::int64_t> cam;                  // one camera's rows
  std::optional<std::pair<double, double>> giorno;  // rows starting in [first, second)
  bool tutto = false;  // everything: with neither of the above every row, and always every event
};

struct SegmentoScelto {
  std::int64_t id = 0;
  std::string file;
  CamId cam = 0;  // 0 for a row without one
};

// The rows `s` selects (camera and day both apply when both are given), in no set order.
std::vector<SegmentoScelto> segmenti_selezionati(const Selezione& s);

// In one transaction: deletes the rows `scelti` and the events of the same selection (every
// event with `tutto`, else those of the camera and/or day).
void cancella_selezione(const Selezione& s, const std::vector<SegmentoScelto>& scelti);

// Deletes index row `id`; nothing for an unknown id.
void cancella_registrazione(std::int64_t id);

}  // namespace nvr
