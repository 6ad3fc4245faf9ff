#include "testing/sonda.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "storage/comando.h"

namespace nvr::testing {

namespace {

constexpr const char* kSegno = "SONDA ";

class AmbienteSonda : public ::testing::Environment {
 public:
  AmbienteSonda(std::string variabile, std::function<std::string(const std::string&)> sonda)
      : variabile_(std::move(variabile)), sonda_(std::move(sonda)) {}

  void SetUp() override {
    const char* valore = std::getenv(variabile_.c_str());
    if (!valore) return;
    std::string risposta;
    try {
      risposta = sonda_(valore);
    } catch (const std::exception& e) {
      risposta = std::string("eccezione: ") + e.what();
    }
    std::printf("\n%s%s\n", kSegno, risposta.c_str());
    std::fflush(stdout);
    std::_Exit(0);
  }

 private:
  std::string variabile_;
  std::function<std::string(const std::string&)> sonda_;
};

}  // namespace

bool registra_sonda(const std::string& variabile,
                    std::function<std::string(const std::string& valore)> sonda) {
  ::testing::AddGlobalTestEnvironment(new AmbienteSonda(variabile, std::move(sonda)));
  return true;
}

std::string sonda_come_nobody(const std::vector<std::string>& ambiente, double timeout) {
  std::vector<std::string> args = {
      "setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "env", "-i"};
  args.insert(args.end(), ambiente.begin(), ambiente.end());
  args.push_back(std::filesystem::read_symlink("/proc/self/exe").string());
  RisultatoComando r = _comando(args, timeout);
  auto a = r.out.rfind(std::string("\n") + kSegno);
  if (r.codice != 0 || a == std::string::npos) {
    ADD_FAILURE() << "la sonda non ha risposto (codice " << r.codice << "): " << r.out << r.err;
    return "";
  }
  std::string risposta = r.out.substr(a + 1 + std::string(kSegno).size());
  if (!risposta.empty() && risposta.back() == '\n') risposta.pop_back();
  return risposta;
}

}  // namespace nvr::testing
