#include "autonomo/lavoratori.h"

namespace nvr::autonomo {

Lavoratori::Lavoratori(std::size_t quanti) {
  for (std::size_t i = 0; i < quanti; ++i) fili_.emplace_back([this] { ciclo(); });
}

Lavoratori::~Lavoratori() {
  {
    std::lock_guard l(m_);
    fine_ = true;
  }
  cv_.notify_all();
  for (auto& f : fili_) f.join();
}

void Lavoratori::esegui(std::function<void()> lavoro) {
  {
    std::lock_guard l(m_);
    coda_.push_back(std::move(lavoro));
  }
  cv_.notify_one();
}

std::size_t Lavoratori::in_corso() const {
  std::lock_guard l(m_);
  return coda_.size() + attivi_;
}

void Lavoratori::ciclo() {
  std::unique_lock l(m_);
  for (;;) {
    cv_.wait(l, [this] { return fine_ || !coda_.empty(); });
    if (coda_.empty()) return;
    std::function<void()> lavoro = std::move(coda_.front());
    coda_.pop_front();
    ++attivi_;
    l.unlock();
    lavoro();
    l.lock();
    --attivi_;
  }
}

}  // namespace nvr::autonomo
