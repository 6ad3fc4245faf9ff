// The live view's bookkeeping, pure: what a camera's live source keeps for viewers that join
// later, and one viewer's queue. No threads and no locks of their own: the live source guards
// them with its mutex.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace nvr {

// A piece of the stream, shared by every viewer that has it queued (never copied per viewer).
using Blocco = std::shared_ptr<const std::string>;

// What a camera's live source keeps: at most about two key-frame intervals, and never more than
// this many bytes of fragments (the newest one always stays).
inline constexpr std::size_t kMemoriaVivo = 8u << 20;
// What a viewer may have waiting before it counts as too slow and is dropped. Above
// kMemoriaVivo, so that what a joining viewer gets at once always fits.
inline constexpr std::size_t kCodaSpettatore = 12u << 20;

struct FrammentoVivo {
  Blocco dati;
  bool chiave = false;  // begins with a key frame
};

class MemoriaVivo {
 public:
  explicit MemoriaVivo(std::size_t limite = kMemoriaVivo) : limite_(limite) {}

  void inizializzazione(Blocco init) { init_ = std::move(init); }
  // Keeps `f`; a key fragment lets go of everything before the previous key fragment; then the
  // oldest fragments go while over the byte limit, except `f` itself.
  void aggiungi(FrammentoVivo f);

  const Blocco& init() const { return init_; }
  // The fragments from the most recent key fragment held on, oldest first; empty when none is
  // held (a joining viewer then waits for the next one).
  std::vector<FrammentoVivo> da_ultima_chiave() const;
  std::size_t byte() const { return byte_; }  // of the fragments held

 private:
  std::size_t limite_;
  Blocco init_;
  std::deque<FrammentoVivo> frammenti_;
  std::size_t byte_ = 0;
};

class CodaSpettatore {
 public:
  explicit CodaSpettatore(std::size_t limite = kCodaSpettatore) : limite_(limite) {}

  // Queues the initialisation segment, which goes first.
  void accoda_init(Blocco init);
  // Queues fragment `f`, unless no key fragment has been queued yet and `f` is not one (a
  // viewer's first fragment must paint at once). Answers false, and empties the queue, when `f`
  // would take it past its limit: the viewer reads too slowly and is to be dropped.
  bool accoda(const FrammentoVivo& f);
  // What is queued, oldest first, as one text: whole pieces up to `massimo` bytes in all (a
  // single larger piece comes whole). "" when nothing waits.
  std::string prendi(std::size_t massimo = 1u << 20);

  bool vuota() const { return pezzi_.empty(); }
  std::size_t byte() const { return byte_; }

 private:
  std::size_t limite_;
  std::deque<Blocco> pezzi_;
  std::size_t byte_ = 0;
  bool chiave_vista_ = false;
};

}  // namespace nvr
