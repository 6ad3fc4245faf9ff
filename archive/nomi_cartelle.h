// How the index's file paths are grouped by folder, shared by reconciliation and the sums kept
// beside the index, and how a folder's names are read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nvr {

// Folder and name of a path, split at its last "/" the way the shell's dirname and basename
// do: "a.mp4" lies in "", "/a.mp4" in "/", and "a//b.mp4" in "a". Views into `p`.
std::pair<std::string_view, std::string_view> cartella_e_nome(std::string_view p);

// One name's share of a folder's signature of indexed names. Shares are added up (modulo 2^64),
// so that the signature does not depend on the order of the rows and a removal subtracts.
std::uint64_t impronta(std::string_view nome);

// The names in `cartella` without "." and "..", sorted (a day folder holds thousands of short
// names, each looked up once: a sorted list beats a set). None when the folder does not exist
// (`*assente` then set, when given), absent when it cannot be read whole. Blocks on the disk.
std::optional<std::vector<std::string>> nomi_ordinati(const std::string& cartella,
                                                      bool* assente = nullptr);

}  // namespace nvr
