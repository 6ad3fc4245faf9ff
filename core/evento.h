// A flag that one thread sets and another waits for, with a time-out.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace nvr {

class Evento {
 public:
  void set() {
    {
      std::lock_guard l(m_);
      alzato_ = true;
    }
    cv_.notify_all();
  }
  void clear() {
    std::lock_guard l(m_);
    alzato_ = false;
  }
  bool is_set() const {
    std::lock_guard l(m_);
    return alzato_;
  }
  // Blocks until the flag is set or `secondi` pass; answers whether it is set. Does not clear it.
  bool wait(double secondi) {
    std::unique_lock l(m_);
    return cv_.wait_for(l, std::chrono::duration<double>(secondi), [this] { return alzato_; });
  }

 private:
  mutable std::mutex m_;
  std::condition_variable cv_;
  bool alzato_ = false;  // guarded by m_
};

}  // namespace nvr
