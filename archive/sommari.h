// The archive overview from per-day sums kept beside the index, so that its cost grows with the
// days recorded rather than with the rows. The sums are built once from the index (at the first
// start after an upgrade, in the background) and then follow it through the journal that the
// index's triggers fill (core/schema_sommari.h). Days are local days in one zone; the sums
// remember the zone they were built for and are rebuilt when it changes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "archive/riepilogo.h"
#include "core/tempo.h"

namespace nvr {

// The same answer as riepilogo_archivio(z), from the sums: first folds the journal into them (a
// short write transaction, waiting for the database like any writer), then reads one row per
// camera and day. Absent while the sums are not built for `z`: the caller falls back to
// riepilogo_archivio and may start costruisci_sommari_in_fondo(). Throws ErroreDb.
std::optional<RiepilogoArchivio> riepilogo_da_sommari(Zona z);

struct CartellaIndicizzata {
  std::string cartella;     // as cartella_e_nome (archive/nomi_cartelle.h) gives it
  std::int64_t n = 0;       // rows whose file lies in it
  std::uint64_t firma = 0;  // the sum of the shares (impronta) of their names
};

// The folders that hold indexed files, after folding the journal as riepilogo_da_sommari does;
// absent while the sums are not built for `z`. Throws ErroreDb.
std::optional<std::vector<CartellaIndicizzata>> cartelle_indicizzate(Zona z);

// Folds the journal into the sums built for `z` (nothing when they are not), so that it stays
// short between overviews; for the paths that remove many rows at once. Throws ErroreDb.
void ripiega_sommari(Zona z);

// Builds the sums for `z` from the whole index: one read of every row (seconds at millions of
// rows, holding a read transaction meanwhile) and one short write. Blocks; throws ErroreDb.
void costruisci_sommari(Zona z);

// Runs costruisci_sommari(_fuso()) on a thread of its own and returns at once, then
// togli_indici_superati() there; does nothing while an earlier one still runs. A failure is
// logged and leaves the sums unbuilt.
void costruisci_sommari_in_fondo();

}  // namespace nvr
