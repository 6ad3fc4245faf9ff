// Timing helpers shared by the benchmarks that speak to the standalone program: percentiles of
// repeated measurements, and waiting until the program has finished its start-up work.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace nvr::bench {

inline double secondi_da(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// The `q` quantile (0..1) of `valori`, nearest rank; NaN when there are none.
inline double quantile(std::vector<double> valori, double q) {
  if (valori.empty()) return NAN;
  std::sort(valori.begin(), valori.end());
  std::size_t i = static_cast<std::size_t>(q * static_cast<double>(valori.size() - 1) + 0.5);
  return valori[std::min(i, valori.size() - 1)];
}

// Runs `f` `volte` times and answers each run's duration in milliseconds.
inline std::vector<double> cronometra_ms(int volte, const std::function<void()>& f) {
  std::vector<double> ms;
  for (int i = 0; i < volte; ++i) {
    auto t0 = std::chrono::steady_clock::now();
    f();
    ms.push_back(secondi_da(t0) * 1000);
  }
  return ms;
}

// CPU seconds used so far by process `pid` (user + system); negative when it is gone.
inline double cpu_di(int pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
  std::string testo((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  std::size_t chiusa = testo.rfind(')');
  if (chiusa == std::string::npos) return -1;
  std::istringstream campi(testo.substr(chiusa + 2));
  std::string campo;
  double utente = 0, sistema = 0;
  // Fields 3..; utime and stime are the 14th and 15th of the whole line.
  for (int i = 3; i <= 15 && campi >> campo; ++i) {
    if (i == 14) utente = std::stod(campo);
    if (i == 15) sistema = std::stod(campo);
  }
  return (utente + sistema) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Waits until `pid` used less than 5% of a core over one second (its engine's first passes
// done), at most `secondi`. Answers whether it went quiet.
inline bool attendi_quiete(int pid, double secondi) {
  auto fine = std::chrono::steady_clock::now() + std::chrono::duration<double>(secondi);
  double prima = cpu_di(pid);
  while (std::chrono::steady_clock::now() < fine) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    double ora = cpu_di(pid);
    if (ora < 0) return false;
    if (ora - prima < 0.05) return true;
    prima = ora;
  }
  return false;
}

}  // namespace nvr::bench
