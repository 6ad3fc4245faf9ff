// Where each recording's file is, remembered from the index, so that playing or seeking in a
// segment again costs neither a database connection nor a query: a player asks for the same
// segment dozens of times, one byte range at a time.
//
// What is remembered is forgotten as soon as a row of the index is deleted or changed (see
// versione_registrazioni), or the host's database file is another one: an answer from memory is
// always one the index would give now. Thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace nvr {

struct FileVideo {
  std::string percorso;  // "" when the row holds no file
  // On a local file system: opening it cannot hang on a server that no longer answers, as a
  // network share can.
  bool locale = false;
};

// The file of index row `id`, from memory when known, otherwise read from the index (one short
// connection, throws ErroreDb when the database fails) and remembered. Absent when there is no
// such row. Blocks on SQLite and on a statfs of the file only when not known.
std::optional<FileVideo> file_video(std::int64_t id);

// The file of index row `id` only when known in memory: never touches the disk or the
// database, takes one mutex briefly. Absent when not known (the row may well exist).
std::optional<FileVideo> file_video_ricordato(std::int64_t id);

}  // namespace nvr
