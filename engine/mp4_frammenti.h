// Reading a fragmented MP4 stream (ffmpeg's "-movflags frag_keyframe+empty_moov" on a pipe) as
// it arrives: the initialisation segment once, then one whole fragment at a time. Pure: no
// input/output, no threads; one reader per stream, not shared between threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/mp4_box.h"
#include "core/esito.h"

namespace nvr {

// One piece of the stream, ready to be sent as it is.
struct PezzoMp4 {
  enum class Tipo { inizializzazione, frammento };
  Tipo tipo = Tipo::frammento;
  std::string dati;
  // For a fragment: its first sample is a key frame (sync sample, or depends on no other).
  bool chiave = false;
};

// Boxes larger than this are taken for garbage rather than buffered.
inline constexpr std::uint64_t kMassimoBox = 64ull << 20;

class LettoreMp4 {
 public:
  // Consumes the next bytes of the stream, in chunks of any size, and answers the pieces they
  // complete, in stream order: the initialisation segment (every box up to and including moov)
  // first and once, then each fragment (the boxes since the previous fragment, such as styp,
  // sidx or prft, plus moof and its mdat). Boxes after the last mdat wait for a next fragment.
  // Fails, and from then on answers the same error, on a box shorter than its header, one over
  // kMassimoBox, one without a length, a moof before moov, or a fragment that grows past
  // kMassimoBox; the bytes held never exceed about kMassimoBox plus one chunk.
  Esito<std::vector<PezzoMp4>> leggi(std::string_view byte);

  // Codec and size, once moov has been read.
  const std::optional<InfoVideo>& info() const { return info_; }

 private:
  std::optional<Errore> box(std::string_view tipo, std::string_view intero,
                            std::vector<PezzoMp4>& pezzi);

  std::string attesa_;           // bytes not yet part of a whole box
  std::size_t letti_ = 0;        // of attesa_, already consumed
  std::string corrente_;         // whole boxes of the piece being gathered
  bool moov_visto_ = false;      // the initialisation segment went out
  bool moof_visto_ = false;      // corrente_ holds a moof waiting for its mdat
  bool chiave_ = false;          // of that moof
  std::uint32_t flag_trex_ = 0;  // default sample flags from moov's mvex/trex
  std::optional<InfoVideo> info_;
  std::optional<Errore> errore_;
};

// Whether the moof box (whole, header included) begins with a key frame: the first sample's
// flags from trun's first_sample_flags, else its own per-sample flags, else tfhd's
// default_sample_flags, else `flag_predefiniti` (trex). A key frame has sample_is_non_sync_sample
// clear or sample_depends_on equal to 2.
bool moof_inizia_con_chiave(std::string_view moof, std::uint32_t flag_predefiniti);

}  // namespace nvr
