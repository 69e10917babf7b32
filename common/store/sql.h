// RAII over the statement operations, for the library's own C++ code: a statement that
// finalizes itself, a transaction that rolls back unless committed, the store-lock
// guard, and the two together for a write. With these, "release on every path out" holds
// by construction.
#pragma once

#include <sqlite3.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>

#include <kel/libkel.h>
#include "statement.h"
#include "store_handle.h"

namespace kel {

// One item of a typed value list.
struct SqlValue {
	data_type_t type;
	int number = 0;
	const char *text = nullptr;
	attrset_t *set = nullptr;

	SqlValue(int v) : type(DATA_TYPE_INT32), number(v) {}
	SqlValue(const char *v) : type(DATA_TYPE_STRING), text(v) {}
	SqlValue(const std::string &v) : type(DATA_TYPE_STRING), text(v.c_str()) {}
	SqlValue(attrset_t *v) : type(DATA_TYPE_ATTRSET), set(v) {}
};

using SqlValues = std::initializer_list<SqlValue>;

// SQL text: a literal used as it is, or a format whose "%s" conversions SQLite's own
// formatter fills with names and pre-built clauses (never with caller data).
class SqlText {
public:
	SqlText(const char *literal) : text_(literal) {}

	template <class... Args>
	requires(sizeof...(Args) > 0 && (std::is_convertible_v<Args, const char *> && ...))
	    SqlText(const char *format, Args... args)
	    : built_(sqlite3_mprintf(format, static_cast<const char *>(args)...)), text_(built_)
	{
	}

	~SqlText() { sqlite3_free(built_); }
	SqlText(const SqlText &) = delete;
	SqlText &operator=(const SqlText &) = delete;

	// NULL when the text could not be built (no memory).
	const char *c_str() const { return text_; }

private:
	char *built_ = nullptr;
	const char *text_;
};

// Binds `values` to `stmt` as a typed value list.
int bind_values(sqlite3_stmt *stmt, SqlValues values);

// The connection statements run on: a store handle's, or a bare SQLite connection (the
// statement layer's own tests). Statements, row loops and transactions take this rather
// than the engine's connection, so that the code above the store names no engine.
class Db {
public:
	Db(kel_dbhandle_t h) : lite_(h->edh_db), pg_(h->edh_pg) {}
	Db(sqlite3 *lite) : lite_(lite) {}
	Db(pg::Conn *pg) : pg_(pg) {}

	sqlite3 *lite() const { return lite_; }
	pg::Conn *pg() const { return pg_; }

private:
	sqlite3 *lite_ = nullptr;
	pg::Conn *pg_ = nullptr;
};

// A statement's state on PostgreSQL (statement.cc).
struct PgCursor;
struct PgCursorFree {
	void operator()(PgCursor *c) const;
};

// One statement and, once stepped, its current row. Row readers read columns through it
// and nothing else.
class Statement {
public:
	Statement() = default;
	~Statement();
	Statement(const Statement &) = delete;
	Statement &operator=(const Statement &) = delete;

	// Prepares `sql` (or takes the store's kept statement for it) and binds `values`; a
	// statement held before is handed back first.
	int prepare(Db db, const SqlText &sql, SqlValues values = {});
	// Binds `text` to parameter `position` (from 1), after prepare.
	int bind_text(int position, const char *text);
	// KEL_E_CONTINUE with a row ready, KEL_SUCCESS when done, or an error.
	int step() { return pg_ ? pg_step() : kel_sqlite3_step(stmt_); }

	// The connection it runs on.
	Db db() const;
	// The SQLite statement itself, for the statement layer's tests.
	sqlite3_stmt *get() const { return stmt_; }
	// Column `i` of the current row as text; NULL for an SQL NULL. A truth value reads as
	// 1 or 0 on either engine.
	const char *text(int i) const
	{
		return pg_ ? pg_text(i) : reinterpret_cast<const char *>(sqlite3_column_text(stmt_, i));
	}
	int integer(int i) const { return pg_ ? pg_integer(i) : sqlite3_column_int(stmt_, i); }
	bool is_null(int i) const { return pg_ ? pg_text(i) == nullptr : sqlite3_column_type(stmt_, i) == SQLITE_NULL; }
	int columns() const { return pg_ ? pg_columns() : sqlite3_column_count(stmt_); }

private:
	int pg_prepare(pg::Conn *conn, const SqlText &sql, SqlValues values);
	int pg_step();
	const char *pg_text(int i) const;
	int pg_integer(int i) const;
	int pg_columns() const;

	sqlite3_stmt *stmt_ = nullptr;
	std::unique_ptr<PgCursor, PgCursorFree> pg_;
};

// Runs `sql` to its end, skipping any rows.
int exec(Db db, const SqlText &sql, SqlValues values = {});

// The row loop: prepares `sql`, hands each row to `on_row` and stops at the first result
// of `on_row` other than KEL_SUCCESS. Returns that result, a step or prepare failure, or
// KEL_SUCCESS once every row (possibly none) was consumed.
template <class OnRow>
int for_each_row(Db db, const SqlText &sql, SqlValues values, OnRow &&on_row)
{
	Statement st;
	int rc = st.prepare(db, sql, values);
	if (rc != KEL_SUCCESS)
		return rc;
	while ((rc = st.step()) == KEL_E_CONTINUE) {
		rc = on_row(st);
		if (rc != KEL_SUCCESS)
			return rc;
	}
	return rc;
}

// A transaction on one connection: rolled back when it goes out of scope uncommitted.
class Transaction {
public:
	explicit Transaction(Db db) : db_(db) {}
	~Transaction() { rollback(); }
	Transaction(const Transaction &) = delete;
	Transaction &operator=(const Transaction &) = delete;

	int begin();
	// Commits; a failed commit is rolled back and its code returned.
	int commit();
	// Rolls back an open transaction (its own result is of no use to anyone).
	void rollback();

private:
	int run(const char *sql);

	Db db_;
	bool open_ = false;
};

// Holds the store lock of a handle for its lifetime.
class StoreLock {
public:
	explicit StoreLock(kel_dbhandle_t handle) : handle_(handle), rc_(kel_lock(handle)) {}
	~StoreLock()
	{
		if (rc_ == KEL_SUCCESS)
			kel_unlock(handle_);
	}
	StoreLock(const StoreLock &) = delete;
	StoreLock &operator=(const StoreLock &) = delete;

	// KEL_SUCCESS when the lock is held, else why it could not be taken.
	int status() const { return rc_; }

private:
	kel_dbhandle_t handle_;
	int rc_;
};

// What an operation that writes holds: the store lock, taken at once, and a transaction
// under it, begun by begin() (after whatever reads decide what to write, when there are
// any). At scope exit a transaction not committed is rolled back, and then the lock is
// given up; within a caller's lock and transaction both are the caller's to end.
class WriteScope {
public:
	explicit WriteScope(kel_dbhandle_t handle) : lock_(handle), tx_(handle) {}
	WriteScope(const WriteScope &) = delete;
	WriteScope &operator=(const WriteScope &) = delete;

	// KEL_SUCCESS when the lock is held, else why it could not be taken.
	int locked() const { return lock_.status(); }
	// Begins the transaction; the lock's failure instead when it is not held.
	int begin() { return locked() != KEL_SUCCESS ? locked() : tx_.begin(); }
	// Commits; a failed commit is rolled back and its code returned.
	int commit() { return tx_.commit(); }

private:
	StoreLock lock_;
	Transaction tx_;  // after the lock: rolled back before it goes
};

}  // namespace kel
