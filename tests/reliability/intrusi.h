// Other recorder programs on the same machine. Each one, 10 s after it starts, interrupts every
// ffmpeg recorder of the machine it takes for a leftover of its own, ours included: on a
// machine shared with other test runs, a hole in our timeline can come from there. The tests
// use this to tell such a hole from one of their own making.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nvr::affidabilita {

class Intrusi {
 public:
  // Watches the process table every 200 ms, on a thread of its own, for recorder programs and
  // recorder sweeps whose command line does not name `nostra` (our data folder).
  explicit Intrusi(std::string nostra);
  ~Intrusi();
  Intrusi(const Intrusi&) = delete;
  Intrusi& operator=(const Intrusi&) = delete;

  // Whether a hole that began at `da` (epoch seconds) follows one of them closely enough to be
  // its sweep: within 60 s of its first sighting (the sweep waits 10 s, longer on a busy
  // machine), or while a sweep was seen running.
  bool spiega(double da) const;
  // How many were seen.
  int visti() const;

 private:
  void guarda();

  const std::string nostra_;
  mutable std::mutex m_;               // guards avvistati_
  std::map<pid_t, double> avvistati_;  // pid -> epoch seconds of the first sighting
  std::atomic<bool> fine_{false};
  std::thread t_;
};

}  // namespace nvr::affidabilita
