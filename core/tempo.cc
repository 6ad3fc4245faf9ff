#include "core/tempo.h"

#include <date/tz.h>

#include <chrono>
#include <cmath>
#include <exception>

#include "core/stato.h"

#if defined(__SANITIZE_THREAD__)
// glibc's mktime and localtime_r hold tzset's lock while they touch the time-zone state. That lock
// lives inside libc, where ThreadSanitizer cannot see it, so two threads converting local times
// look like a race on the zone name. Only the thread-checking build has this function.
extern "C" const char* __tsan_default_suppressions() { return "race:tzset_internal\n"; }
#endif

namespace nvr {

namespace {

using namespace std::chrono;

std::tm da_locale(date::local_seconds ls) {
  auto giorni = date::floor<date::days>(ls);
  date::year_month_day ymd{giorni};
  date::hh_mm_ss<seconds> hms{ls - giorni};
  std::tm t{};
  t.tm_year = static_cast<int>(ymd.year()) - 1900;
  t.tm_mon = static_cast<int>(static_cast<unsigned>(ymd.month())) - 1;
  t.tm_mday = static_cast<int>(static_cast<unsigned>(ymd.day()));
  t.tm_hour = static_cast<int>(hms.hours().count());
  t.tm_min = static_cast<int>(hms.minutes().count());
  t.tm_sec = static_cast<int>(hms.seconds().count());
  t.tm_wday = static_cast<int>(date::weekday{giorni}.c_encoding());
  t.tm_yday = (giorni - date::local_days{ymd.year() / 1 / 1}).count();
  t.tm_isdst = -1;
  return t;
}

}  // namespace

double _ora() {
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

Zona zona_di(const std::string& nome) {
  if (nome.empty()) return nullptr;
  try {
    return date::locate_zone(nome);
  } catch (const std::exception&) {
    return nullptr;
  }
}

Zona _fuso() {
  std::shared_ptr<Host> host = host_attuale();
  if (!host || !host->_zn_fuso) return nullptr;
  try {
    std::optional<std::string> nome = host->_zn_fuso();
    return nome ? zona_di(*nome) : nullptr;
  } catch (...) {
    return nullptr;  // a host that fails to answer means "no zone", never an error
  }
}

std::tm scomponi(double ts, Zona z) {
  auto secondi = static_cast<long long>(std::floor(ts));
  if (!z) {
    std::time_t t = static_cast<std::time_t>(secondi);
    std::tm r{};
    localtime_r(&t, &r);
    return r;
  }
  sys_seconds s{seconds{secondi}};
  return da_locale(z->to_local(s));
}

double epoch_di(const std::tm& locale, Zona z) {
  if (!z) {
    std::tm t = locale;
    t.tm_isdst = -1;
    return static_cast<double>(std::mktime(&t));
  }
  // Normalise the month first, then let day, hour, minute and second overflow by arithmetic.
  int mesi = locale.tm_mon;
  int anno = locale.tm_year + 1900 + mesi / 12;
  mesi %= 12;
  if (mesi < 0) {
    mesi += 12;
    --anno;
  }
  date::local_seconds ls =
      date::local_days{date::year{anno} / date::month{static_cast<unsigned>(mesi + 1)} / 1} +
      date::days{locale.tm_mday - 1} + hours{locale.tm_hour} + minutes{locale.tm_min} +
      seconds{locale.tm_sec};
  // For an ambiguous time `first` is the earlier occurrence; for a skipped one it is the offset
  // in force before the change.
  seconds offset = z->get_info(ls).first.offset;
  return static_cast<double>((ls.time_since_epoch() - offset).count());
}

std::tm _adesso() { return scomponi(_ora(), _fuso()); }

std::string formatta(const std::tm& t, const char* formato) {
  char buf[128];
  std::size_t n = std::strftime(buf, sizeof buf, formato, &t);
  return std::string(buf, n);
}

int giorno_settimana(const std::tm& t) { return (t.tm_wday + 6) % 7; }

std::optional<std::tm> leggi_giorno(const std::string& testo) {
  // Year of four digits, month and day of one or two, digits only.
  std::size_t i = 0;
  auto numero = [&](std::size_t min, std::size_t max) -> std::optional<int> {
    std::size_t da = i;
    int n = 0;
    while (i < testo.size() && i - da < max && testo[i] >= '0' && testo[i] <= '9')
      n = n * 10 + (testo[i++] - '0');
    if (i - da < min) return std::nullopt;
    return n;
  };
  auto trattino = [&] { return i < testo.size() && testo[i++] == '-'; };
  auto a = numero(4, 4);
  if (!a || !trattino()) return std::nullopt;
  auto m = numero(1, 2);
  if (!m || !trattino()) return std::nullopt;
  auto g = numero(1, 2);
  if (!g || i != testo.size()) return std::nullopt;
  date::year_month_day ymd{date::year{*a}, date::month{static_cast<unsigned>(*m)},
                           date::day{static_cast<unsigned>(*g)}};
  if (*a < 1 || !ymd.ok()) return std::nullopt;
  std::tm t{};
  t.tm_year = *a - 1900;
  t.tm_mon = *m - 1;
  t.tm_mday = *g;
  t.tm_isdst = -1;
  return t;
}

const std::string& GiornoLocale::di(double ts) {
  if (!z_) {
    testo_ = formatta(scomponi(ts, nullptr), "%Y-%m-%d");
    return testo_;
  }
  const auto secondi = static_cast<long long>(std::floor(ts));
  if (secondi < periodo_da_ || secondi >= periodo_a_) {
    const date::sys_info info = z_->get_info(sys_seconds{seconds{secondi}});
    periodo_da_ = info.begin.time_since_epoch().count();
    periodo_a_ = info.end.time_since_epoch().count();
    scarto_ = info.offset.count();
    valido_ = false;
  }
  // Local seconds = UTC seconds + offset all through the period, so the day number follows.
  const long long locale = secondi + scarto_;
  const long long numero = locale / 86400 - (locale % 86400 < 0 ? 1 : 0);
  if (!valido_ || numero != numero_) {
    testo_ = formatta(scomponi(ts, z_), "%Y-%m-%d");
    numero_ = numero;
    valido_ = true;
  }
  return testo_;
}

}  // namespace nvr
