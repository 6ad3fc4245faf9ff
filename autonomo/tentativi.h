// Wrong passwords counted per client address: each one slows the next answer down, and after a
// few in a row the address is locked out for a while. Other addresses are not touched, so the
// owner can still log in from the phone while someone guesses from elsewhere.
//
// Pure decisions on one address's record and the time; Accesso keeps the records and sleeps.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace nvr::autonomo {

struct RegoleTentativi {
  int falliti_per_blocco = 10;           // the failure that reaches this count locks the address
  double secondi_blocco = 15 * 60;       // how long the lock lasts
  double secondi_oblio = 15 * 60;        // a failure older than this no longer counts
  double attesa_per_fallito = 1;         // the answer to the n-th failure waits n times this...
  double attesa_massima = 10;            // ...up to this
  std::size_t indirizzi_massimi = 4096;  // records kept at most (see pota_tentativi)
};

// One address's recent history. A default record is an address with nothing against it.
struct Tentativi {
  int falliti = 0;           // wrong passwords in a row, within secondi_oblio of each other
  double ultimo = 0;         // time of the last wrong password
  double bloccato_fino = 0;  // locked out while the time is before this
};

// Seconds until the address may try again: 0 when it may try now.
double secondi_di_blocco(const Tentativi& t, double adesso);

// What a wrong password at `adesso` does to the record: the new record, and how long to wait
// before answering (0 when the failure just locked the address: it is told so at once).
struct DopoFallimento {
  Tentativi tentativi;
  double attesa = 0;
};
DopoFallimento dopo_fallimento(const Tentativi& t, double adesso, const RegoleTentativi& regole);

// Whether a record still matters at `adesso` (locked, or failures not yet forgotten): records
// that do not can be dropped.
bool da_ricordare(const Tentativi& t, double adesso, const RegoleTentativi& regole);

// Keeps the table within regole.indirizzi_massimi: drops the records that no longer matter,
// then, if still too many (a guesser with many addresses), the ones with the oldest failure.
void pota_tentativi(std::map<std::string, Tentativi>& tabella, double adesso,
                    const RegoleTentativi& regole);

}  // namespace nvr::autonomo
