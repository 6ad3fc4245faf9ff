#include "tests/reliability/intrusi.h"

#include <chrono>
#include <filesystem>

#include "testing/processi.h"

namespace nvr::affidabilita {

namespace fs = std::filesystem;

namespace {

double ora_epoch() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A recorder program (the standalone one, or a test binary that runs the engine in-process) or
// the sweep itself.
bool registra_o_spazza(const std::vector<std::string>& riga) {
  if (riga.empty()) return false;
  const std::string nome = fs::path(riga[0]).filename();
  if (nome == "nvr" || nome.find("e2e") != std::string::npos) return true;
  if (nome != "pkill" && nome != "sudo") return false;
  for (const auto& a : riga)
    if (a.find("in_corso") != std::string::npos) return true;
  return false;
}

}  // namespace

Intrusi::Intrusi(std::string nostra) : nostra_(std::move(nostra)), t_([this] { guarda(); }) {}

Intrusi::~Intrusi() {
  fine_ = true;
  t_.join();
}

void Intrusi::guarda() {
  while (!fine_) {
    std::error_code ec;
    for (const auto& voce : fs::directory_iterator("/proc", ec)) {
      const std::string nome = voce.path().filename();
      if (nome.find_first_not_of("0123456789") != std::string::npos) continue;
      const pid_t pid = std::stoi(nome);
      {
        std::lock_guard l(m_);
        if (avvistati_.count(pid)) continue;
      }
      const auto riga = testing::riga_di_comando(pid);
      if (!registra_o_spazza(riga)) continue;
      bool nostro = false;
      for (const auto& a : riga) nostro = nostro || a.find(nostra_) != std::string::npos;
      if (nostro) continue;
      std::lock_guard l(m_);
      avvistati_.emplace(pid, ora_epoch());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

bool Intrusi::spiega(double da) const {
  std::lock_guard l(m_);
  for (const auto& [pid, visto] : avvistati_)
    if (da >= visto - 2 && da <= visto + 60) return true;
  return false;
}

int Intrusi::visti() const {
  std::lock_guard l(m_);
  return static_cast<int>(avvistati_.size());
}

}  // namespace nvr::affidabilita
