// What a process costs, read from /proc: CPU seconds (its own, children excluded) and
// proportional memory (Pss), and the children a process started.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace nvr::bench {

struct StatoProc {
  pid_t ppid = 0;
  std::string comm;
  double cpu = 0;        // utime + stime, seconds
  double cpu_figli = 0;  // cutime + cstime: the children it has already reaped, seconds
};

// /proc/<pid>/stat; false when the process is gone.
inline bool leggi_stat(pid_t pid, StatoProc* s) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string riga;
  if (!std::getline(in, riga)) return false;
  // The name sits in parentheses and may hold spaces or ')': the fields follow the last ')'.
  const auto apre = riga.find('('), chiude = riga.rfind(')');
  if (apre == std::string::npos || chiude == std::string::npos) return false;
  s->comm = riga.substr(apre + 1, chiude - apre - 1);
  std::istringstream resto(riga.substr(chiude + 2));
  std::vector<std::string> campi;
  for (std::string c; resto >> c;) campi.push_back(c);
  if (campi.size() < 15) return false;
  // campi[0] is field 3 (state): ppid is field 4, utime 14, stime 15, cutime 16, cstime 17.
  s->ppid = static_cast<pid_t>(std::atol(campi[1].c_str()));
  static const double tick = static_cast<double>(::sysconf(_SC_CLK_TCK));
  s->cpu = (std::atof(campi[11].c_str()) + std::atof(campi[12].c_str())) / tick;
  s->cpu_figli = (std::atof(campi[13].c_str()) + std::atof(campi[14].c_str())) / tick;
  return true;
}

inline double cpu_secondi(pid_t pid) {
  StatoProc s;
  return leggi_stat(pid, &s) ? s.cpu : 0;
}

inline double cpu_figli_raccolti(pid_t pid) {
  StatoProc s;
  return leggi_stat(pid, &s) ? s.cpu_figli : 0;
}

// Pss of /proc/<pid>/smaps_rollup in MB (1e6 bytes); 0 when the process is gone.
inline double pss_mb(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string riga; std::getline(in, riga);)
    if (riga.rfind("Pss:", 0) == 0) return std::atof(riga.c_str() + 4) * 1024 / 1e6;
  return 0;
}

// The children of `padre` whose name is `comm`, with their CPU seconds.
inline std::map<pid_t, double> figli(pid_t padre, const std::string& comm) {
  std::map<pid_t, double> trovati;
  std::error_code ec;
  for (const auto& v : std::filesystem::directory_iterator("/proc", ec)) {
    const std::string nome = v.path().filename();
    if (nome.find_first_not_of("0123456789") != std::string::npos) continue;
    StatoProc s;
    const pid_t pid = static_cast<pid_t>(std::atol(nome.c_str()));
    if (leggi_stat(pid, &s) && s.ppid == padre && s.comm == comm) trovati[pid] = s.cpu;
  }
  return trovati;
}

// CPU spent by a changing set of processes between two readings of figli(): the ones present at
// both ends by difference, the ones that came meanwhile in full; the ones that left are missing
// here (their parent's cpu_figli_raccolti() has them once reaped) and counted in `cambiati`,
// with those that came.
inline double cpu_fra(const std::map<pid_t, double>& prima, const std::map<pid_t, double>& dopo,
                      int* cambiati) {
  double totale = 0;
  *cambiati = 0;
  for (const auto& [pid, cpu] : dopo) {
    auto it = prima.find(pid);
    if (it == prima.end()) ++*cambiati;
    totale += cpu - (it == prima.end() ? 0 : it->second);
  }
  for (const auto& [pid, cpu] : prima)
    if (!dopo.count(pid)) ++*cambiati;
  return totale;
}

}  // namespace nvr::bench
