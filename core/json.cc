#include "core/json.h"

#include "core/testi.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace nvr {

bool vuoto(const Json& v) {
  switch (v.type()) {
    case Json::value_t::null:
    case Json::value_t::discarded:
      return true;
    case Json::value_t::boolean:
      return !v.get<bool>();
    case Json::value_t::number_integer:
      return v.get<std::int64_t>() == 0;
    case Json::value_t::number_unsigned:
      return v.get<std::uint64_t>() == 0;
    case Json::value_t::number_float:
      return v.get<double>() == 0.0;
    case Json::value_t::string:
      return v.get_ref<const std::string&>().empty();
    case Json::value_t::array:
    case Json::value_t::object:
    case Json::value_t::binary:
      return v.empty();
  }
  return true;
}

const Json& campo(const Json& oggetto, const std::string& chiave) {
  static const Json nullo;
  if (!oggetto.is_object()) return nullo;
  auto it = oggetto.find(chiave);
  return it == oggetto.end() ? nullo : *it;
}

namespace {

std::string scalare(const Json& v, Ascii ascii) {
  return v.dump(-1, ' ', ascii == Ascii::kEscape, Json::error_handler_t::replace);
}

void scrivi(const Json& v, Ascii ascii, std::string& out) {
  if (v.is_object()) {
    out += '{';
    bool primo = true;
    for (const auto& [k, x] : v.items()) {
      if (!primo) out += ", ";
      primo = false;
      out += scalare(Json(k), ascii);
      out += ": ";
      scrivi(x, ascii, out);
    }
    out += '}';
  } else if (v.is_array()) {
    out += '[';
    bool primo = true;
    for (const auto& x : v) {
      if (!primo) out += ", ";
      primo = false;
      scrivi(x, ascii, out);
    }
    out += ']';
  } else {
    out += scalare(v, ascii);
  }
}

std::optional<std::int64_t> da_reale(double d) {
  if (std::isnan(d) || std::isinf(d)) return std::nullopt;
  constexpr double kMax = 9.2233720368547748e18;  // first double beyond int64
  if (d >= kMax) return std::numeric_limits<std::int64_t>::max();
  if (d <= -kMax) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(std::trunc(d));
}

}  // namespace

std::string testo_json(const Json& v, Ascii ascii) {
  std::string out;
  scrivi(v, ascii, out);
  return out;
}

std::optional<Json> leggi_json(const std::string& testo) {
  Json v = Json::parse(testo, nullptr, false);
  if (v.is_discarded()) return std::nullopt;
  return v;
}

std::optional<std::int64_t> intero(const Json& v) {
  switch (v.type()) {
    case Json::value_t::boolean:
      return v.get<bool>() ? 1 : 0;
    case Json::value_t::number_integer:
      return v.get<std::int64_t>();
    case Json::value_t::number_unsigned: {
      auto u = v.get<std::uint64_t>();
      if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return std::numeric_limits<std::int64_t>::max();
      return static_cast<std::int64_t>(u);
    }
    case Json::value_t::number_float:
      return da_reale(v.get<double>());
    case Json::value_t::string: {
      std::string s = spoglia(v.get_ref<const std::string&>());
      if (s.empty()) return std::nullopt;
      std::size_t i = (s[0] == '+' || s[0] == '-') ? 1 : 0;
      if (i == s.size()) return std::nullopt;
      for (std::size_t j = i; j < s.size(); ++j)
        if (s[j] < '0' || s[j] > '9') return std::nullopt;
      errno = 0;
      long long n = std::strtoll(s.c_str(), nullptr, 10);
      if (errno == ERANGE) return s[0] == '-' ? std::numeric_limits<std::int64_t>::min()
                                              : std::numeric_limits<std::int64_t>::max();
      return n;
    }
    default:
      return std::nullopt;
  }
}

std::optional<double> reale(const Json& v) {
  switch (v.type()) {
    case Json::value_t::boolean:
      return v.get<bool>() ? 1.0 : 0.0;
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float:
      return v.get<double>();
    case Json::value_t::string: {
      std::string s = spoglia(v.get_ref<const std::string&>());
      if (s.empty()) return std::nullopt;
      char* fine = nullptr;
      double d = std::strtod(s.c_str(), &fine);
      if (fine != s.c_str() + s.size()) return std::nullopt;
      // strtod also reads hexadecimal numbers, which nobody types as a size in gigabytes.
      if (s.find_first_of("xX") != std::string::npos) return std::nullopt;
      return d;
    }
    default:
      return std::nullopt;
  }
}

std::string testo_di(const Json& v) {
  if (v.is_string()) return v.get<std::string>();
  if (v.is_boolean()) return v.get<bool>() ? "True" : "False";
  if (v.is_null()) return "None";
  return testo_json(v, Ascii::kTieni);
}

std::string testo_o_vuoto(const Json& v) { return vuoto(v) ? "" : testo_di(v); }

std::string testo_campo(const Json& oggetto, const std::string& chiave) {
  const Json& v = campo(oggetto, chiave);
  return v.is_null() ? "" : testo_di(v);
}

}  // namespace nvr
