#include "core/contatori.h"

#include <map>
#include <mutex>

namespace nvr {

namespace {

struct Voce {
  std::string aiuto;
  std::uint64_t valore = 0;
};

std::mutex lock_contatori;
std::map<std::string, Voce, std::less<>> tutti;  // guarded by lock_contatori

Voce& voce(std::string_view nome) {
  auto it = tutti.find(nome);
  if (it == tutti.end()) it = tutti.emplace(std::string(nome), Voce{}).first;
  return it->second;
}

}  // namespace

void dichiara_contatore(std::string_view nome, std::string_view aiuto) {
  std::lock_guard l(lock_contatori);
  voce(nome).aiuto = aiuto;
}

void incrementa_contatore(std::string_view nome, std::uint64_t quanto) {
  std::lock_guard l(lock_contatori);
  voce(nome).valore += quanto;
}

std::vector<Contatore> contatori() {
  std::lock_guard l(lock_contatori);
  std::vector<Contatore> copia;
  copia.reserve(tutti.size());
  for (const auto& [nome, v] : tutti) copia.push_back({nome, v.aiuto, v.valore});
  return copia;
}

void azzera_contatori_per_test() {
  std::lock_guard l(lock_contatori);
  tutti.clear();
}

}  // namespace nvr
