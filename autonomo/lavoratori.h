// A fixed set of threads that run the handlers, so that a slow one (a mount, a long listing)
// never holds up the server's network loop.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace nvr::autonomo {

class Lavoratori {
 public:
  explicit Lavoratori(std::size_t quanti);
  // Runs what is queued, then joins the threads.
  ~Lavoratori();
  Lavoratori(const Lavoratori&) = delete;
  Lavoratori& operator=(const Lavoratori&) = delete;

  // Queues `lavoro`; it runs on one of the threads, in order of arrival. Never blocks.
  // `lavoro` must not throw.
  void esegui(std::function<void()> lavoro);

  // Jobs queued or running.
  std::size_t in_corso() const;

 private:
  void ciclo();

  mutable std::mutex m_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> coda_;  // guarded by m_
  std::size_t attivi_ = 0;                  // guarded by m_
  bool fine_ = false;                       // guarded by m_
  std::vector<std::thread> fili_;
};

}  // namespace nvr::autonomo
