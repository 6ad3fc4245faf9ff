// How a file answer is sent: single byte ranges, validators, inline or attachment.
//
// Pure: the hosts stat the file, ask for the plan, and then send the planned bytes with their
// own server. Nothing here reads the file.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/richiesta.h"

namespace nvr {

struct InfoFile {
  std::int64_t dimensione = 0;
  std::int64_t mtime_ns = 0;  // modification time, nanoseconds since the epoch
  std::uint64_t inode = 0;
};

// What the host must answer: status, headers, and which bytes of the file (none for 304/416).
struct PianoInvio {
  int status = 200;
  std::int64_t inizio = 0;
  std::int64_t lunghezza = 0;
  std::vector<std::pair<std::string, std::string>> intestazioni;
};

// Plans the answer to a GET (or HEAD) of `file`, given the request headers (names in lower
// case). Honours If-None-Match / If-Modified-Since (304), one byte range of "Range: bytes=..."
// (206 with Content-Range; 416 when it starts beyond the end), If-Range; a range header that is
// malformed or asks for several ranges is ignored and the whole file is sent. Always sets ETag,
// Last-Modified, Accept-Ranges: bytes and Cache-Control: private, max-age=3600, and the
// Content-Disposition (attachment or inline) with the download name.
PianoInvio pianifica_invio(const FileDaInviare& file, const InfoFile& info,
                           const std::map<std::string, std::string>& intestazioni);

// The stat of a regular file at `percorso`; absent when it is missing or not a regular file.
std::optional<InfoFile> info_file(const std::string& percorso);

// An HTTP date (RFC 7231) for epoch seconds, and its reading (absent when malformed).
std::string data_http(std::int64_t epoch);
std::optional<std::int64_t> leggi_data_http(const std::string& testo);

}  // namespace nvr
