// The tables behind the archive overview's per-day sums: the sums themselves, and a journal
// of index changes that triggers fill, so that every writer of the index (the recorder's own
// paths and the host alike) leaves a trace without knowing of the sums.
#pragma once

namespace nvr {

class Connessione;

// Creates, when missing, the journal `nvr_reg_variazioni` (one row per index row added, +1, or
// removed, -1, with its camera, times, size and file; an update counts as both), its three
// triggers, the per-day sums `nvr_reg_giorni`, the per-folder
// counts `nvr_reg_cartelle` and their state `nvr_reg_sommari`. Cheap at any
// index size: the sums are left empty and are filled later (archive/sommari.h). Joins the
// caller's transaction; throws ErroreDb.
void crea_schema_sommari(Connessione& c);

}  // namespace nvr
