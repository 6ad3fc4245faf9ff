// Small text helpers shared by the mount code: trimming, lower case, what a command said.
#pragma once

#include <string>

#include "storage/comando.h"

namespace nvr {

// `s` without leading and trailing blanks (space, tab, line feed, carriage return, ...).
std::string spoglia(const std::string& s);

// `s` with the ASCII letters in lower case.
std::string minuscolo(std::string s);

// What a failed command said: its error text, else its output, else `ripiego`. A text of blanks
// only counts as nothing said. The text is returned as it is, not trimmed.
std::string detto(const RisultatoComando& r, const std::string& ripiego);

}  // namespace nvr
