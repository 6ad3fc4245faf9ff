// A value several threads read and replace whole: a reader sees the old or the new value.
#pragma once

#include <mutex>
#include <utility>

namespace nvr {

template <class T>
class Condiviso {
 public:
  Condiviso() = default;
  explicit Condiviso(T v) : v_(std::move(v)) {}
  T get() const {
    std::lock_guard l(m_);
    return v_;
  }
  void set(T v) {
    std::lock_guard l(m_);
    v_ = std::move(v);
  }
  // Changes the value in place under the mutex; `f` must not block.
  template <class F>
  void modifica(F&& f) {
    std::lock_guard l(m_);
    f(v_);
  }

 private:
  mutable std::mutex m_;
  T v_{};  // guarded by m_
};

}  // namespace nvr
