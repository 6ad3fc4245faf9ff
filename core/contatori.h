// Named counters that any module raises and the metrics page shows: events worth counting that
// belong to no other state (messages ignored, connections refused). Counters only grow, from
// program start; they are not saved.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nvr {

struct Contatore {
  std::string nome;   // "nvr_..._total", as the metrics page names it
  std::string aiuto;  // one line in plain Italian; may be empty
  std::uint64_t valore = 0;
};

// Makes the counter known (at 0 until raised) with its help line; a later call only replaces
// the help line. Thread-safe, never blocks for long.
void dichiara_contatore(std::string_view nome, std::string_view aiuto);

// Adds `quanto` to the counter, creating it when unknown. Thread-safe, never blocks for long:
// callable from any thread, also from callbacks of network libraries.
void incrementa_contatore(std::string_view nome, std::uint64_t quanto = 1);

// Every counter, sorted by name.
std::vector<Contatore> contatori();

// Forgets every counter (tests).
void azzera_contatori_per_test();

}  // namespace nvr
