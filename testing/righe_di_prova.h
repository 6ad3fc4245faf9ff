// Rows of the recorder's index and event tables, written and read back directly, for tests of
// the code that reconciles and prunes them. The recorder must be attached (HostDiProva) and its
// tables created (_init_db).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nvr::testing {

// Inserts a recording row of camera `cam` started at `inizio` for `file`; answers its id.
std::int64_t aggiungi_registrazione(std::int64_t cam, double inizio, const std::string& file);
// The files of the recording rows, in id order.
std::vector<std::string> file_indicizzati();

void aggiungi_evento(std::int64_t cam, double ts);
// The time stamps of the event rows, in id order.
std::vector<double> ts_eventi();

}  // namespace nvr::testing
