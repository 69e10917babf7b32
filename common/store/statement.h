// Statement operations: the only code that prepares, binds, steps and finalizes SQLite
// statements. Values always travel as bound parameters, never inside the SQL text; the
// format arguments are for table names, column names and pre-built clauses only, and
// every format uses only "%s".
//
// A typed value list is an int count N followed by N items, each a data_type_t tag and
// its value: DATA_TYPE_INT32 with an int, DATA_TYPE_STRING with a const char *, both bound
// to the next position counting from 1; DATA_TYPE_ATTRSET with an attrset_t *, whose
// entries bind to the parameter numbers their names spell ("3" binds ?3) without moving
// the position count.
#pragma once

#include <sqlite3.h>

#include <cstdarg>

#include <kel/libkel.h>

// Builds the SQL text from `fmt` and its `nfmt` format arguments (all const char *),
// prepares it into *stmtp and binds the typed value list that follows. On a bind failure
// the statement stays in *stmtp for the caller to finalize.
int kel_sqlite3_prepare(sqlite3 *db, sqlite3_stmt **stmtp, const char *fmt, int nfmt, ...);

// Prepares as kel_sqlite3_prepare does and runs the statement to its end, skipping rows.
int kel_sqlite3_exec(sqlite3 *db, const char *fmt, int nfmt, ...);

// One step: KEL_E_CONTINUE when a row is ready, KEL_SUCCESS when done, else the SQLite
// code under KEL_E_SQL. No retry: a busy store is reported as such.
int kel_sqlite3_step(sqlite3_stmt *stmt);

// Finalizes; NULL is harmless.
void kel_sqlite3_finalize(sqlite3_stmt *stmt);

// Binds the typed value list at *ap (starting at its count) to `stmt`.
int kel_sqlite3_bind(sqlite3_stmt *stmt, va_list *ap);
