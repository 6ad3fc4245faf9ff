// JSON values as the recorder stores and answers them.
//
// Objects keep their insertion order, because the API's answers have a fixed key order and the
// stored texts are read back by people and by other programs sharing the database.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace nvr {

using Json = nlohmann::ordered_json;

// A value counts as empty when it is absent (null), false, zero, an empty text, list or object.
// "Value or default" everywhere in the recorder means: the default when the value is empty.
bool vuoto(const Json& v);
inline bool pieno(const Json& v) { return !vuoto(v); }

// Lookup that treats a missing key, and a non-object, as null.
const Json& campo(const Json& oggetto, const std::string& chiave);

enum class Ascii { kEscape, kTieni };

// The text form used in the database: ", " and ": " separators, non-ASCII characters either
// escaped as \uXXXX or kept as they are. Invalid UTF-8 is replaced, never an error.
std::string testo_json(const Json& v, Ascii ascii);

// Parses leniently: absent when the text is not JSON.
std::optional<Json> leggi_json(const std::string& testo);

// Whole-number reading of a request or stored value, as a person would expect it:
// integers as they are, reals truncated toward zero (saturating beyond the int64 range),
// true/false as 1/0, texts holding an integer (surrounding blanks allowed). Absent for anything
// else (a non-numeric text, a list, an object, infinity, NaN).
std::optional<std::int64_t> intero(const Json& v);

// Real-number reading: numbers and booleans, texts holding a decimal number (also "nan", "inf").
std::optional<double> reale(const Json& v);

// A value's text: a text as it is, an integer in decimal, a real in its shortest form,
// booleans as "True"/"False", anything else in its JSON text.
std::string testo_di(const Json& v);

// testo_di(v), or "" when `v` is empty by vuoto's rule: stored settings read absent, null, zero
// and empty alike.
std::string testo_o_vuoto(const Json& v);

// The text of `oggetto`'s field `chiave`, "" only when it is absent or null (a request's 0 stays
// "0").
std::string testo_campo(const Json& oggetto, const std::string& chiave);

}  // namespace nvr
