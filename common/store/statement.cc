#include "statement.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "error_code.h"
#include "fault.h"
#include "kel_assert.h"
#include "pg_conn.h"
#include "pg_lib.h"
#include "sql.h"
#include "statement_cache.h"

namespace kel {

// A statement on PostgreSQL: its values are kept until the first step runs it, and its
// whole result is then read row by row.
struct PgCursor {
	pg::Conn *conn;
	pg::Prepared prepared;
	std::vector<std::string> values;  // by PostgreSQL parameter number, from 0
	std::vector<bool> bound;
	pg::Result result;
	int row = -1;
	bool ran = false;

	// Binds SQLite parameter number `at`: beyond the highest the text has is an error, as
	// there; a number the text skips takes the value and uses it nowhere, as there.
	int bind(int at, std::string text)
	{
		const pg::Translated &t = *prepared.text;
		if (at < 1 || at > t.highest)
			return sql_error(SQLITE_RANGE);
		if (const auto slot = t.slots.find(at); slot != t.slots.end()) {
			values[slot->second - 1] = std::move(text);
			bound[slot->second - 1] = true;
		}
		return KEL_SUCCESS;
	}
};

}  // namespace kel

namespace {

// Where a typed value list's items go: an SQLite statement, or a PostgreSQL one's values.
struct LiteTarget {
	sqlite3_stmt *stmt;
	static int result(int sqlrc) { return sqlrc == SQLITE_OK ? KEL_SUCCESS : kel::sql_error(sqlrc); }
	int number(int at, int v) { return result(sqlite3_bind_int(stmt, at, v)); }
	int text(int at, const char *t)
	{
		return result(sqlite3_bind_text(stmt, at, t, static_cast<int>(std::strlen(t)), SQLITE_TRANSIENT));
	}
};

struct PgTarget {
	kel::PgCursor *cursor;
	int number(int at, int v) { return cursor->bind(at, std::to_string(v)); }
	int text(int at, const char *t) { return cursor->bind(at, t); }
};

// Binds the items of one typed value list, keeping the position count for plain items.
template <class Target>
class Binder {
public:
	explicit Binder(Target target) : target_(target) {}

	int bind(const kel::SqlValue &v)
	{
		switch (v.type) {
		case DATA_TYPE_INT32: return target_.number(++pos_, v.number);
		case DATA_TYPE_STRING: return bind_text(++pos_, v.text);
		case DATA_TYPE_ATTRSET: return bind_numbered(v.set);
		}
		KEL_ASSERT(kel::kAreaUtil, !"unknown value type in a typed value list");
	}

private:
	int bind_text(int at, const char *text) { return target_.text(at, text); }

	// Entries are named by their parameter numbers, as the filter builder writes "?%d".
	int bind_numbered(attrset_t *set)
	{
		for (attrset_entry_t *e = attrset_next_entry(set, nullptr); e != nullptr;
		     e = attrset_next_entry(set, e)) {
			const int at = std::atoi(attrset_entry_name(e));
			int rc;
			char *text;
			int32_t number;
			if (attrset_entry_value_int32(e, &number) == 0)
				rc = target_.number(at, number);
			else if (attrset_entry_value_string(e, &text) == 0)
				rc = bind_text(at, text);
			else
				KEL_ASSERT(kel::kAreaUtil, !"attribute-set entry of an unbindable type");
			if (rc != KEL_SUCCESS)
				return rc;
		}
		return KEL_SUCCESS;
	}

	Target target_;
	int pos_ = 0;
};

template <class Target>
int bind_all(Target target, kel::SqlValues values)
{
	Binder<Target> binder(target);
	for (const kel::SqlValue &v : values) {
		int rc = binder.bind(v);
		if (rc != KEL_SUCCESS)
			return rc;
	}
	return KEL_SUCCESS;
}

// Reads one item of a C typed value list.
kel::SqlValue next_item(va_list *ap)
{
	const auto type = static_cast<data_type_t>(va_arg(*ap, int));
	switch (type) {
	case DATA_TYPE_INT32: return kel::SqlValue(va_arg(*ap, int));
	case DATA_TYPE_STRING: return kel::SqlValue(va_arg(*ap, const char *));
	case DATA_TYPE_ATTRSET: return kel::SqlValue(va_arg(*ap, attrset_t *));
	}
	KEL_ASSERT(kel::kAreaUtil, !"unknown value type in a typed value list");
}

// Prepares built SQL text (the terminator included in the length, no tail).
int prepare_text(sqlite3 *db, sqlite3_stmt **stmtp, const char *text)
{
	*stmtp = nullptr;
	if (text == nullptr)
		return KEL_E_NOMEM;
	if (int injected = kel::fault::next_statement_fault())
		return injected;
	int sqlrc = sqlite3_prepare_v2(db, text, static_cast<int>(std::strlen(text)) + 1, stmtp, nullptr);
	return sqlrc == SQLITE_OK ? KEL_SUCCESS : kel::sql_error(sqlrc);
}

// The shared body of the C prepare operations: format, prepare, bind.
int vprepare(sqlite3 *db, sqlite3_stmt **stmtp, const char *fmt, int nfmt, va_list *ap)
{
	va_list fmtargs;
	va_copy(fmtargs, *ap);
	char *text = sqlite3_vmprintf(fmt, fmtargs);
	va_end(fmtargs);

	int rc = prepare_text(db, stmtp, text);
	sqlite3_free(text);
	if (rc != KEL_SUCCESS)
		return rc;
	// Every format conversion is "%s", so each format argument is one const char *.
	for (int i = 0; i < nfmt; i++)
		(void)va_arg(*ap, const char *);
	return kel_sqlite3_bind(*stmtp, ap);
}

}  // namespace

int kel_sqlite3_bind(sqlite3_stmt *stmt, va_list *ap)
{
	Binder<LiteTarget> binder({stmt});
	const int count = va_arg(*ap, int);
	for (int i = 0; i < count; i++) {
		int rc = binder.bind(next_item(ap));
		if (rc != KEL_SUCCESS)
			return rc;
	}
	return KEL_SUCCESS;
}

int kel_sqlite3_prepare(sqlite3 *db, sqlite3_stmt **stmtp, const char *fmt, int nfmt, ...)
{
	va_list ap;
	va_start(ap, nfmt);
	int rc = vprepare(db, stmtp, fmt, nfmt, &ap);
	va_end(ap);
	return rc;
}

int kel_sqlite3_exec(sqlite3 *db, const char *fmt, int nfmt, ...)
{
	sqlite3_stmt *stmt;
	va_list ap;
	va_start(ap, nfmt);
	int rc = vprepare(db, &stmt, fmt, nfmt, &ap);
	va_end(ap);
	while (rc == KEL_SUCCESS && (rc = kel_sqlite3_step(stmt)) == KEL_E_CONTINUE)
		rc = KEL_SUCCESS;
	kel_sqlite3_finalize(stmt);
	return rc;
}

int kel_sqlite3_step(sqlite3_stmt *stmt)
{
	int sqlrc = sqlite3_step(stmt);
	if (sqlrc == SQLITE_ROW)
		return KEL_E_CONTINUE;
	if (sqlrc == SQLITE_DONE)
		return KEL_SUCCESS;
	return kel::sql_error(sqlrc);
}

void kel_sqlite3_finalize(sqlite3_stmt *stmt)
{
	(void)sqlite3_finalize(stmt);
}

namespace kel {

int bind_values(sqlite3_stmt *stmt, SqlValues values)
{
	return bind_all(LiteTarget{stmt}, values);
}

void PgCursorFree::operator()(PgCursor *c) const
{
	delete c;
}

Statement::~Statement()
{
	statement_cache::give_back(stmt_);
}

Db Statement::db() const
{
	return pg_ ? Db(pg_->conn) : Db(sqlite3_db_handle(stmt_));
}

int Statement::pg_prepare(pg::Conn *conn, const SqlText &sql, SqlValues values)
{
	if (sql.c_str() == nullptr)
		return KEL_E_NOMEM;
	if (int injected = kel::fault::next_statement_fault())
		return injected;
	pg_.reset(new PgCursor());
	pg_->conn = conn;
	if (int rc = conn->prepare(sql.c_str(), &pg_->prepared); rc != KEL_SUCCESS)
		return rc;
	pg_->values.resize(pg_->prepared.text->slots.size());
	pg_->bound.resize(pg_->prepared.text->slots.size());
	return bind_all(PgTarget{pg_.get()}, values);
}

int Statement::pg_step()
{
	if (!pg_->ran) {
		// Parameters never bound are NULL, as on SQLite.
		std::vector<const char *> values(pg_->values.size());
		for (size_t i = 0; i < values.size(); i++)
			values[i] = pg_->bound[i] ? pg_->values[i].c_str() : nullptr;
		pg_->ran = true;
		if (int rc = pg_->conn->run(pg_->prepared, values, &pg_->result); rc != KEL_SUCCESS)
			return rc;
	}
	return ++pg_->row < pg::lib()->PQntuples(pg_->result.get()) ? KEL_E_CONTINUE : KEL_SUCCESS;
}

const char *Statement::pg_text(int i) const
{
	const PGresult *res = pg_->result.get();
	if (res == nullptr || pg_->row < 0 || pg_->row >= pg::lib()->PQntuples(res) || i < 0 ||
	    i >= pg::lib()->PQnfields(res) || pg::lib()->PQgetisnull(res, pg_->row, i))
		return nullptr;
	return pg::lib()->PQgetvalue(res, pg_->row, i);
}

int Statement::pg_integer(int i) const
{
	const char *t = pg_text(i);
	if (t == nullptr)
		return 0;
	if (pg::lib()->PQftype(pg_->result.get(), i) == 16)  // bool: 't' or 'f'
		return *t == 't' ? 1 : 0;
	return std::atoi(t);
}

int Statement::pg_columns() const
{
	return pg_->result ? pg::lib()->PQnfields(pg_->result.get()) : 0;
}

int Statement::prepare(Db conn, const SqlText &sql, SqlValues values)
{
	pg_.reset();
	if (conn.pg() != nullptr)
		return pg_prepare(conn.pg(), sql, values);
	sqlite3 *db = conn.lite();
	statement_cache::give_back(stmt_);
	stmt_ = nullptr;
	if (sql.c_str() != nullptr && (stmt_ = statement_cache::take(db, sql.c_str())) != nullptr) {
		// The fault hook counts every statement run, kept or new.
		if (int injected = kel::fault::next_statement_fault()) {
			statement_cache::give_back(stmt_);
			stmt_ = nullptr;
			return injected;
		}
		return bind_values(stmt_, values);
	}
	int rc = prepare_text(db, &stmt_, sql.c_str());
	return rc != KEL_SUCCESS ? rc : bind_values(stmt_, values);
}

int Statement::bind_text(int position, const char *text)
{
	if (pg_)
		return pg_->bind(position, text);
	const int sqlrc = sqlite3_bind_text(stmt_, position, text, -1, SQLITE_TRANSIENT);
	return sqlrc == SQLITE_OK ? KEL_SUCCESS : kel::sql_error(sqlrc);
}

int exec(Db db, const SqlText &sql, SqlValues values)
{
	Statement st;
	int rc = st.prepare(db, sql, values);
	while (rc == KEL_SUCCESS && (rc = st.step()) == KEL_E_CONTINUE)
		rc = KEL_SUCCESS;
	return rc;
}

// The transaction statements. On PostgreSQL they go as they are, without preparing:
// a rollback runs from destructors, where nothing may throw, not even for memory. The
// fault hook counts them as it counts every statement.
int Transaction::run(const char *sql)
{
	if (db_.pg() == nullptr)
		return exec(db_, sql);
	if (int injected = kel::fault::next_statement_fault())
		return injected;
	return db_.pg()->simple(sql, nullptr);
}

int Transaction::begin()
{
	// Inside a caller's transaction this one joins it, so operations compose: the
	// caller's commit or rollback decides for both.
	if (db_.pg() != nullptr ? db_.pg()->in_transaction() : sqlite3_get_autocommit(db_.lite()) == 0)
		return KEL_SUCCESS;
	int rc = run("BEGIN TRANSACTION");
	open_ = rc == KEL_SUCCESS;
	return rc;
}

int Transaction::commit()
{
	if (!open_)
		return KEL_SUCCESS;  // joined a caller's transaction
	int rc = run("COMMIT TRANSACTION");
	if (rc == KEL_SUCCESS)
		open_ = false;
	else
		rollback();
	return rc;
}

void Transaction::rollback()
{
	if (!open_)
		return;
	open_ = false;
	(void)run("ROLLBACK TRANSACTION");
}

}  // namespace kel
