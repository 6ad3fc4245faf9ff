// Small text helpers: trimming, lower case, a stream address's scheme.
#pragma once

#include <string>
#include <string_view>

namespace nvr {

// `s` without leading and trailing blanks: space, tab, line feed, carriage return, form feed,
// vertical tab.
std::string spoglia(std::string_view s);

// `s` without leading and trailing spaces and tabs only: the optional white space around the
// items of an HTTP header list.
std::string spoglia_spazi_e_tab(std::string_view s);

// `s` without leading and trailing spaces, tabs and line ends (CR, LF): what a form or a
// home-automation system leaves around a typed value; form feeds and vertical tabs stay.
std::string spoglia_spazi_e_righe(std::string_view s);

// `s` with the ASCII letters in lower case; other bytes as they are.
std::string minuscolo(std::string s);

// Whether `url` starts, in any letter case, with rtsp://, rtsps://, http:// or https://: the
// streams a recorder can read.
bool schema_flusso_valido(const std::string& url);

// `dati` in base64 (RFC 4648, with padding), for data: URLs.
std::string base64(std::string_view dati);

}  // namespace nvr
