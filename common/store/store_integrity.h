// Whether a store may be written. A handle that writes checks the store when it first
// takes the store lock: a file damaged by hand or by a disk, a store of a newer schema,
// or one without a version is refused before anything is written into it. Reading a
// whole store through costs about a microsecond a port (0.15 s at 100,000 ports), so it
// is done only when the store changed outside the library since it was last found sound
// (store_integrity.cc says how that is known).
#pragma once

#include <kel/libkel.h>

namespace kel {

// For a write handle that has just taken the store lock. KEL_SUCCESS when the store may
// be written: its file is a sound database, and its schema version is one this library
// writes or upgrades (1 to 3). Otherwise the code to refuse it with: the SQLite code of
// a damaged file under KEL_E_SQL (SQLITE_CORRUPT, SQLITE_NOTADB), KEL_E_DB_VERSION for a
// newer schema, one of schema::read_version's for a store without a usable version, or
// KEL_E_NOMEM.
int check_writable(kel_dbhandle_t h) noexcept;

// For a write handle about to drop the store lock: the store is as sound as it was found
// when the lock was taken, with what the library wrote under it.
void note_sound(kel_dbhandle_t h) noexcept;

}  // namespace kel
