#include "engine/vivo_coda.h"

#include <algorithm>

namespace nvr {

void MemoriaVivo::aggiungi(FrammentoVivo f) {
  if (!f.dati) return;
  if (f.chiave) {
    // Only the interval before this key frame stays, beside the one it starts.
    std::size_t ultima = 0;  // index of the previous key fragment; 0: nothing to let go
    for (std::size_t i = frammenti_.size(); i-- > 0;)
      if (frammenti_[i].chiave) {
        ultima = i;
        break;
      }
    for (std::size_t i = 0; i < ultima; ++i) {
      byte_ -= frammenti_.front().dati->size();
      frammenti_.pop_front();
    }
  }
  byte_ += f.dati->size();
  frammenti_.push_back(std::move(f));
  while (byte_ > limite_ && frammenti_.size() > 1) {
    byte_ -= frammenti_.front().dati->size();
    frammenti_.pop_front();
  }
}

std::vector<FrammentoVivo> MemoriaVivo::da_ultima_chiave() const {
  auto ultima = std::find_if(frammenti_.rbegin(), frammenti_.rend(),
                             [](const FrammentoVivo& x) { return x.chiave; });
  if (ultima == frammenti_.rend()) return {};
  return std::vector<FrammentoVivo>(std::prev(ultima.base()), frammenti_.end());
}

void CodaSpettatore::accoda_init(Blocco init) {
  if (!init) return;
  byte_ += init->size();
  pezzi_.push_back(std::move(init));
}

bool CodaSpettatore::accoda(const FrammentoVivo& f) {
  if (!f.dati || (!chiave_vista_ && !f.chiave)) return true;
  if (byte_ + f.dati->size() > limite_) {
    pezzi_.clear();
    byte_ = 0;
    return false;
  }
  chiave_vista_ = true;
  byte_ += f.dati->size();
  pezzi_.push_back(f.dati);
  return true;
}

std::string CodaSpettatore::prendi(std::size_t massimo) {
  std::string fuori;
  while (!pezzi_.empty() && (fuori.empty() || fuori.size() + pezzi_.front()->size() <= massimo)) {
    fuori += *pezzi_.front();
    byte_ -= pezzi_.front()->size();
    pezzi_.pop_front();
  }
  return fuori;
}

}  // namespace nvr
