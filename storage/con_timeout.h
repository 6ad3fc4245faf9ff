// Calls that may hang on a dead drive or network share, cut off after a time limit.
#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>

#include "core/esito.h"

namespace nvr {

// Errore::codice of a call that did not finish in time; its message is "filesystem bloccato".
inline constexpr int kFilesystemBloccato = -110;
// Errore::codice of a call that threw; its message is the exception's text.
inline constexpr int kErroreChiamata = -1;

// Runs `corpo` on a new detached thread and waits at most `secondi` for it. Answers its value,
// the text of what it threw (kErroreChiamata), or "filesystem bloccato" (kFilesystemBloccato).
// On time-out the thread is abandoned: it owns `corpo` and its share of the result, so nothing
// it touches later has been freed. A filesystem that stays hung keeps one thread per call.
template <class F, class T = std::invoke_result_t<F>>
Esito<T> _con_timeout(F corpo, double secondi) {
  struct Condivisa {
    std::mutex m;
    std::condition_variable cv;
    bool finito = false;
    std::optional<T> valore;
    std::string errore;
  };
  auto stato = std::make_shared<Condivisa>();
  try {
    std::thread([stato, corpo = std::move(corpo)]() mutable {
      std::optional<T> v;
      std::string e = "errore sconosciuto";
      try {
        v.emplace(corpo());
      } catch (const std::exception& ex) {
        e = ex.what();
      } catch (...) {
      }
      std::lock_guard l(stato->m);
      stato->valore = std::move(v);
      stato->errore = std::move(e);
      stato->finito = true;
      stato->cv.notify_all();
    }).detach();
  } catch (const std::system_error& ex) {
    return Errore{kErroreChiamata, ex.what()};  // no thread could be created
  }
  std::unique_lock l(stato->m);
  if (!stato->cv.wait_for(l, std::chrono::duration<double>(secondi),
                          [&] { return stato->finito; }))
    return Errore{kFilesystemBloccato, "filesystem bloccato"};
  if (stato->valore) return std::move(*stato->valore);
  return Errore{kErroreChiamata, stato->errore};
}

}  // namespace nvr
