// The token that opens /metrics without a login, as the settings store keeps it.
#pragma once

#include <string>

namespace nvr::autonomo {

// The settings key of the token in table nvr_autonomo_impostazioni (chiave, valore).
inline constexpr const char* kChiaveTokenMetriche = "token_metriche";

// The token, or "" when none is set, the settings table does not exist yet or the database
// cannot be read (a bearer is then refused, a login still opens the page). One short query;
// blocks on the database (busy time-out 15 s).
std::string token_metriche(const std::string& db_file);

}  // namespace nvr::autonomo
