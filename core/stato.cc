#include "core/stato.h"

#include <algorithm>

namespace nvr {

namespace {
std::mutex radice_m;
std::string radice_test;  // guarded by radice_m
}  // namespace

bool modo_valido(std::string_view modo) {
  return std::find(MODI.begin(), MODI.end(), modo) != MODI.end();
}

std::string radice_montaggi() {
  std::lock_guard l(radice_m);
  return radice_test.empty() ? std::string(RADICE_MONTAGGI) : radice_test;
}

void imposta_radice_montaggi_per_test(std::string cartella) {
  std::lock_guard l(radice_m);
  radice_test = std::move(cartella);
}

std::shared_ptr<Host> RiferimentoHost::get() const {
  std::lock_guard l(m_);
  return host_;
}

bool RiferimentoHost::imposta_se_assente(std::shared_ptr<Host> host) {
  std::lock_guard l(m_);
  if (host_) return false;
  host_ = std::move(host);
  return true;
}

void RiferimentoHost::azzera_per_test() {
  std::lock_guard l(m_);
  host_.reset();
}

RiferimentoHost A;

}  // namespace nvr
