// Result type for operations whose failure is expected and must be reported, not thrown.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace nvr {

struct Errore {
  int codice = 0;
  std::string messaggio;
};

// Either a value or an Errore. Reading the value of a failed Esito is a programming error.
template <class T>
class [[nodiscard]] Esito {
 public:
  Esito(T valore) : dentro_(std::move(valore)) {}
  Esito(Errore errore) : dentro_(std::move(errore)) {}

  bool ok() const { return dentro_.index() == 0; }
  explicit operator bool() const { return ok(); }

  const T& valore() const& { return std::get<0>(dentro_); }
  T& valore() & { return std::get<0>(dentro_); }
  T&& valore() && { return std::get<0>(std::move(dentro_)); }
  const Errore& errore() const { return std::get<1>(dentro_); }

 private:
  std::variant<T, Errore> dentro_;
};

}  // namespace nvr
