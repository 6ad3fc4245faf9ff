// The administrator's login: a generated password kept only as a salted slow hash in the
// database, and the sessions opened with it, kept in memory.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "autonomo/tentativi.h"

namespace nvr::autonomo {

// A new random password that a person can read and type: four groups of four letters and
// digits without look-alikes ("k7mq-3xwd-..."), 19 characters. Throws std::runtime_error when
// the system's random source fails.
std::string genera_password();

// The stored form of `password`: "pbkdf2_sha256$<iterations>$<salt hex>$<hash hex>", a fresh
// 16-byte salt, 200000 iterations. Takes a few hundred milliseconds on purpose.
std::string impronta_password(const std::string& password);

// Whether `password` gives `impronta` (compared in constant time). False for an impronta that
// cannot be read. Takes as long as impronta_password.
bool verifica_password(const std::string& password, const std::string& impronta);

// The program's table in the shared database file (created when missing by salva_impronta).
// Database errors throw ErroreDb.
std::optional<std::string> leggi_impronta(const std::string& db_file);
void salva_impronta(const std::string& db_file, const std::string& impronta);

// What a login attempt gave.
struct EsitoAccesso {
  std::optional<std::string> token;  // the new session when the password was right
  int riprova_fra = 0;  // > 0: the address is locked out, seconds until it may try again
};

// The open sessions, and the wrong passwords counted per client address (tentativi.h).
// Thread-safe; no call blocks except accedi, which sleeps after a wrong password.
class Accesso {
 public:
  explicit Accesso(std::string impronta, RegoleTentativi regole = {})
      : impronta_(std::move(impronta)), regole_(regole) {}

  // From client address `indirizzo`: while it is locked out, answers riprova_fra at once
  // without looking at the password. A right password gives a new session token and clears the
  // address's record. A wrong one sleeps as dopo_fallimento says (1 s for the first in a row,
  // one more for each further one) and answers nothing, or answers riprova_fra when it was the
  // failure that locked the address. The sleep holds no lock.
  EsitoAccesso accedi(const std::string& password, const std::string& indirizzo);

  // Whether `token` belongs to an open session (constant-time comparison with each).
  bool valida(const std::string& token) const;

  // Forgets the session; an unknown token is ignored.
  void esci(const std::string& token);

  static constexpr std::size_t kMaxSessioni = 64;  // the oldest goes when one more opens

 private:
  const std::string impronta_;
  const RegoleTentativi regole_;
  mutable std::mutex m_;                        // guards sessioni_ and tentativi_
  std::vector<std::string> sessioni_;           // oldest first
  std::map<std::string, Tentativi> tentativi_;  // by client address
};

}  // namespace nvr::autonomo
