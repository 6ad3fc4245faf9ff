#include "python/interprete.h"

#include <condition_variable>
#include <mutex>

namespace nvr::python {

namespace {

std::mutex m;
std::condition_variable uscito;
bool in_chiusura = false;  // guarded by m
int in_volo = 0;           // guarded by m: calls between Ingresso and ~Ingresso

}  // namespace

Ingresso::Ingresso() {
  std::lock_guard l(m);
  if (in_chiusura || !Py_IsInitialized()) throw std::runtime_error("interprete in chiusura");
  ++in_volo;
}

Ingresso::~Ingresso() {
  std::lock_guard l(m);
  --in_volo;
  uscito.notify_all();
}

bool chiudi_interprete(std::chrono::milliseconds attesa) {
  {
    std::lock_guard l(m);
    in_chiusura = true;
  }
  // The calls under way may be waiting for the very GIL this thread holds.
  pybind11::gil_scoped_release senza_gil;
  std::unique_lock l(m);
  return uscito.wait_for(l, attesa, [] { return in_volo == 0; });
}

}  // namespace nvr::python
