// Clock and calendar: "now", the host's time zone, and the two ways the recorder turns epoch
// seconds into local dates.
//
// A zone is given as a pointer into the system time-zone database; nullptr means the machine's
// own local time (what localtime()/mktime() use, so the TZ variable is honoured).
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace date {
class time_zone;
}

namespace nvr {

using Zona = const date::time_zone*;

// Seconds since the epoch, with fractions.
double _ora();

// The host's current time zone, or nullptr: when the recorder is not attached, when the host
// publishes no zone, or when the name it publishes is unknown to the system database.
Zona _fuso();

// Looks a zone up by its IANA name ("Europe/Rome"); nullptr when unknown or empty.
Zona zona_di(const std::string& nome);

// The current local date and time in the host's zone (machine local time when it has none),
// as broken-down fields without a zone. tm_wday counts from Sunday = 0, as in C.
std::tm _adesso();

// Epoch seconds as local broken-down time in `z` (machine local time for nullptr).
std::tm scomponi(double ts, Zona z);

// Local wall-clock fields (tm_year, tm_mon, tm_mday, tm_hour, tm_min, tm_sec are read;
// out-of-range fields are normalised, so day 32 is the 1st of the next month) in `z` as epoch
// seconds. An ambiguous time (the repeated hour of autumn) takes its first occurrence; a time
// that does not exist (the skipped hour of spring) is counted with the offset in force before
// the change.
double epoch_di(const std::tm& locale, Zona z);

// strftime of `t`; "" on an empty result.
std::string formatta(const std::tm& t, const char* formato);

// The local date "%Y-%m-%d" of many times in `z` (machine local time for nullptr), always equal
// to formatta(scomponi(ts, z), "%Y-%m-%d"), for loops over many rows: in a zone, the date is
// worked out once per day and offset period, and only arithmetic is done in between. Not for
// sharing between threads.
class GiornoLocale {
 public:
  explicit GiornoLocale(Zona z) : z_(z) {}
  // The reference stays valid until the next call.
  const std::string& di(double ts);

 private:
  Zona z_;
  long long periodo_da_ = 1, periodo_a_ = 0;  // [da, a) seconds with offset `scarto_`; empty
  long long scarto_ = 0;
  long long numero_ = 0;  // local day number of `testo_`
  bool valido_ = false;
  std::string testo_;
};

// Weekday with Monday = 0 ... Sunday = 6.
int giorno_settimana(const std::tm& t);

// Strict "%Y-%m-%d" reading (four-digit year, real calendar date); absent otherwise.
std::optional<std::tm> leggi_giorno(const std::string& testo);

}  // namespace nvr
