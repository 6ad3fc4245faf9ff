// Temporary folders inside an allowed archive root, for tests of the folder rules, and real
// filesystems mounted there.
#pragma once

#include <string>

namespace nvr::testing {

// A fresh folder under /srv (an allowed root on the system disk), removed with everything in it
// at destruction. Needs the right to create folders in /srv (root on the test machine).
class CartellaAmmessa {
 public:
  CartellaAmmessa();
  ~CartellaAmmessa();
  CartellaAmmessa(const CartellaAmmessa&) = delete;
  CartellaAmmessa& operator=(const CartellaAmmessa&) = delete;

  // Whether the folder could be made; the tests that need it skip otherwise.
  bool ok() const { return !percorso_.empty(); }
  const std::string& percorso() const { return percorso_; }
  std::string operator/(const std::string& nome) const { return percorso_ + "/" + nome; }

 private:
  std::string percorso_;
};

// A 1 MB tmpfs mounted on `punto` (created first), read-only when asked; detached at destruction.
// Root only. Declare it after the folder holding it, so that it goes first.
class TmpfsIn {
 public:
  enum class Modo { kScrittura, kSolaLettura };
  explicit TmpfsIn(std::string punto, Modo modo = Modo::kScrittura);
  ~TmpfsIn();
  TmpfsIn(const TmpfsIn&) = delete;
  TmpfsIn& operator=(const TmpfsIn&) = delete;

  bool montato() const { return montato_; }
  const std::string& percorso() const { return punto_; }

 private:
  std::string punto_;
  bool montato_ = false;
};

}  // namespace nvr::testing
