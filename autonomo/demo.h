// The demo camera's stream: an ffmpeg test pattern served once over HTTP on loopback, started
// again each time its one client goes away.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/processo.h"

namespace nvr::autonomo {

// The generator's command line for `porta`. It must never look like a recorder's (the engine
// stops those at start), so it writes to a URL, not to a segment pattern.
std::vector<std::string> argomenti_demo(int porta);

// The stream URL the demo camera records from.
std::string url_demo(int porta);

class GeneratoreDemo {
 public:
  GeneratoreDemo() = default;
  ~GeneratoreDemo() { ferma(); }
  GeneratoreDemo(const GeneratoreDemo&) = delete;
  GeneratoreDemo& operator=(const GeneratoreDemo&) = delete;

  // Starts the watcher thread, which starts ffmpeg on `porta` (its own session, output to the
  // null device) and starts it again when it ends: at once after a client leaves, after 2 s when
  // it ended within 2 s of starting (no respawn storm). Does not block.
  void avvia(int porta);

  // Waits until something listens on the generator's port, up to `secondi`, without connecting
  // (a connection would use up its one client); answers whether it does. Polls /proc/net/tcp.
  bool attendi_ascolto(int porta, double secondi) const;

  // Stops the watcher and ffmpeg: SIGINT to its group, up to 3 s, then SIGKILL, always reaped.
  // Blocks up to about 3 s; idempotent; holds no lock while waiting.
  void ferma();

 private:
  void sorveglia(int porta);

  std::mutex m_;  // guards fermare_ and attuale_
  std::condition_variable cv_;
  bool fermare_ = false;
  std::shared_ptr<Processo> attuale_;
  std::thread thread_;
};

}  // namespace nvr::autonomo
