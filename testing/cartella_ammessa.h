// Temporary folders inside an allowed archive root, for tests of the folder rules.
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

}  // namespace nvr::testing
