// Paths: a path's real form (its links resolved as far as it exists), in one variant per way of
// failing, since callers judge a path differently when it cannot be resolved; and whether a path
// lies inside a folder. Each call touches the filesystem (no time limit: wrap it in
// _con_timeout where the path may sit on a hung mount) and never throws.
#pragma once

#include <string>

namespace nvr {

// Absolute, links resolved as far as the path exists. On failure: the absolute path, or `p` as
// written when even that fails. Retention judges "inside the archive" with it, so a file that
// cannot be resolved is still judged by where it claims to be.
std::string percorso_reale_o_assoluto(const std::string& p);

// Links resolved as far as the path exists; on failure `p` with its "." and ".." folded, so two
// spellings of one folder still compare equal.
std::string percorso_reale_o_normale(const std::string& p);

// Absolute, links resolved as far as the path exists; on failure `p` as written.
std::string percorso_reale_o_scritto(const std::string& p);

// Absolute, links resolved as far as the path exists, without trailing "/" (but "/" itself);
// "" for an empty `p` or on failure, so that an unresolvable path is allowed nowhere.
std::string percorso_reale_o_vuoto(const std::string& p);

// `p` without trailing "/", "/" itself kept.
std::string senza_barra_finale(std::string p);

// Whether path `p` is the folder `radice` or lies inside it, comparing texts as they are
// ("/mediafoo" is not inside "/media"; trailing "/" of `radice` do not count).
bool dentro_cartella(const std::string& p, const std::string& radice);

}  // namespace nvr
