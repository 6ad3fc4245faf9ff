// The administrator's login: a generated password kept only as a salted slow hash in the
// database, and the sessions opened with it, kept in memory.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

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

// The open sessions and the slowing down of wrong passwords. Thread-safe; no call blocks except
// accedi, which sleeps after a wrong password.
class Accesso {
 public:
  explicit Accesso(std::string impronta) : impronta_(std::move(impronta)) {}

  // A new session token when `password` is right (the count of failures starts again). When
  // it is wrong, sleeps 1 s for the first failure in a row, one more second for each further
  // one (up to 10 s), and answers nothing. The sleep holds no lock.
  std::optional<std::string> accedi(const std::string& password);

  // Whether `token` belongs to an open session (constant-time comparison with each).
  bool valida(const std::string& token) const;

  // Forgets the session; an unknown token is ignored.
  void esci(const std::string& token);

  static constexpr std::size_t kMaxSessioni = 64;  // the oldest goes when one more opens

 private:
  const std::string impronta_;
  mutable std::mutex m_;               // guards sessioni_ and fallimenti_
  std::vector<std::string> sessioni_;  // oldest first
  int fallimenti_ = 0;                 // wrong passwords in a row
};

}  // namespace nvr::autonomo
