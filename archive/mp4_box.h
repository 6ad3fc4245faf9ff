// Walking the boxes of an MP4 file held in memory, and what a browser needs to know about its
// video track. Pure: no input/output, no state; every read stays inside the given bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nvr {

// What a browser's MediaSource needs to know before the first byte.
struct InfoVideo {
  std::string codec;  // "avc1.64001f", "hvc1.1.6.L93.B0", or the bare four-character code
  int larghezza = 0;  // pixels, from the sample entry; 0 when unknown
  int altezza = 0;
};

// The codec and size of the video track of a moov box (the whole box, header included);
// nothing when there is no visual sample entry.
std::optional<InfoVideo> info_da_moov(std::string_view moov);

// Big-endian integers at byte `pos` of `s`; nothing (or 0 for a byte) past the end.
std::optional<std::uint32_t> be32_in(std::string_view s, std::size_t pos);
std::optional<std::uint64_t> be64_in(std::string_view s, std::size_t pos);
unsigned be8_in(std::string_view s, std::size_t pos);

// A box inside bytes held in memory.
struct Box {
  std::string_view tipo;    // four characters
  std::string_view corpo;   // after the header (for a full box, version and flags come first)
  std::string_view intero;  // header included
};

// The length of the box whose header starts `s` (header included) and the header's own length
// (8, or 16 with a 64-bit length); nothing while the header is incomplete; 0 as length for a
// header that cannot be a box (shorter than its header, or 0 = "up to the end of the file").
struct TestataBox {
  std::uint64_t lunghezza = 0;
  std::size_t testata = 8;
};
std::optional<TestataBox> testata_box(std::string_view s);

// The boxes inside `contenuto`, in order, up to the first one that does not fit.
std::vector<Box> figli_box(std::string_view contenuto);

// The first box of type `tipo` inside `contenuto`.
std::optional<Box> figlio_box(std::string_view contenuto, std::string_view tipo);

// Follows a path of box types down from `contenuto` ({"mdia", "minf", "stbl"}): the last one.
std::optional<Box> box_lungo(std::string_view contenuto,
                             std::initializer_list<std::string_view> via);

}  // namespace nvr
