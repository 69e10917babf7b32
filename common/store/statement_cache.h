// Prepared statements kept per open store, so that an operation does not parse and plan
// the same SQL again on every call: with the store's expression indexes, preparing
// costs more than the work a statement does. Only connections opened by kel_db_open
// keep statements; on any other connection a statement is prepared and finalized as
// before. Safe from several threads: a statement is lent to one user at a time.
#pragma once

#include <sqlite3.h>

namespace kel::statement_cache {

// Starts keeping statements for `db`.
void attach(sqlite3 *db);
// Stops, and finalizes every statement kept for `db`; before it is closed.
void detach(sqlite3 *db);
// A kept statement of `db` for exactly `sql`, reset and without bindings, now the
// caller's; NULL when none is kept.
sqlite3_stmt *take(sqlite3 *db, const char *sql);
// Hands back a statement (NULL is harmless): reset and kept when its connection keeps
// statements and there is room, else finalized.
void give_back(sqlite3_stmt *stmt);

}  // namespace kel::statement_cache
