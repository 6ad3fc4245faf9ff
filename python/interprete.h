// Calls from the recorder's own threads (engine, request handlers running without the GIL) into
// the host's interpreter, and how those calls end when the interpreter shuts down.
//
// The engine thread outlives the interpreter: it is a daemon. Once the exit hook has run, taking
// the GIL could hang (the interpreter is gone) or end the thread under our feet, so every call
// first checks in here and is refused while the interpreter closes.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>

namespace nvr::python {

// Registers one call into the interpreter for as long as it lives. Throws std::runtime_error
// "interprete in chiusura" when the interpreter is closing or not initialised.
class Ingresso {
 public:
  Ingresso();
  ~Ingresso();
  Ingresso(const Ingresso&) = delete;
  Ingresso& operator=(const Ingresso&) = delete;
};

// Runs `f` holding the GIL, from any thread, including one that released it further up. Blocks
// while another thread holds the GIL. A Python exception raised by `f` comes back as a
// std::runtime_error with its text, so that no Python object travels to a thread that may later
// find the interpreter gone; the engine treats it like any failure of the host.
template <class F>
auto con_gil(F&& f) -> decltype(f()) {
  Ingresso ingresso;
  pybind11::gil_scoped_acquire gil;
  if (_Py_IsFinalizing()) throw std::runtime_error("interprete in chiusura");
  try {
    return std::forward<F>(f)();
  } catch (pybind11::error_already_set& e) {
    throw std::runtime_error(e.what());
  }
}

// Like con_gil, for calls made while the host attaches the recorder on its own thread: the
// host's Python exceptions pass through unchanged (as pybind11::error_already_set).
template <class F>
auto con_gil_dell_ospite(F&& f) -> decltype(f()) {
  Ingresso ingresso;
  pybind11::gil_scoped_acquire gil;
  return std::forward<F>(f)();
}

// Marks the interpreter as closing, so that every later con_gil throws at once, then waits up to
// `attesa` with the GIL released for the calls already under way to leave. Call it holding the
// GIL, from the exit hook. Answers whether they all left in time.
bool chiudi_interprete(std::chrono::milliseconds attesa);

}  // namespace nvr::python
