#include "statement.h"

#include <cstdlib>
#include <cstring>

#include "error_code.h"
#include "fault.h"
#include "kel_assert.h"
#include "sql.h"
#include "statement_cache.h"

namespace {

// Binds the items of one typed value list, keeping the position count for plain items.
class Binder {
public:
	explicit Binder(sqlite3_stmt *stmt) : stmt_(stmt) {}

	int bind(const kel::SqlValue &v)
	{
		switch (v.type) {
		case DATA_TYPE_INT32: return result(sqlite3_bind_int(stmt_, ++pos_, v.number));
		case DATA_TYPE_STRING: return bind_text(++pos_, v.text);
		case DATA_TYPE_ATTRSET: return bind_numbered(v.set);
		}
		KEL_ASSERT(kel::kAreaUtil, !"unknown value type in a typed value list");
	}

private:
	static int result(int sqlrc) { return sqlrc == SQLITE_OK ? KEL_SUCCESS : kel::sql_error(sqlrc); }

	int bind_text(int at, const char *text)
	{
		return result(
		    sqlite3_bind_text(stmt_, at, text, static_cast<int>(std::strlen(text)), SQLITE_TRANSIENT));
	}

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
				rc = result(sqlite3_bind_int(stmt_, at, number));
			else if (attrset_entry_value_string(e, &text) == 0)
				rc = bind_text(at, text);
			else
				KEL_ASSERT(kel::kAreaUtil, !"attribute-set entry of an unbindable type");
			if (rc != KEL_SUCCESS)
				return rc;
		}
		return KEL_SUCCESS;
	}

	sqlite3_stmt *stmt_;
	int pos_ = 0;
};

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
	Binder binder(stmt);
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
	Binder binder(stmt);
	for (const SqlValue &v : values) {
		int rc = binder.bind(v);
		if (rc != KEL_SUCCESS)
			return rc;
	}
	return KEL_SUCCESS;
}

Statement::~Statement()
{
	statement_cache::give_back(stmt_);
}

int Statement::prepare(Db conn, const SqlText &sql, SqlValues values)
{
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

int Transaction::begin()
{
	// Inside a caller's transaction this one joins it, so operations compose: the
	// caller's commit or rollback decides for both.
	if (sqlite3_get_autocommit(db_.lite()) == 0)
		return KEL_SUCCESS;
	int rc = exec(db_, "BEGIN TRANSACTION");
	open_ = rc == KEL_SUCCESS;
	return rc;
}

int Transaction::commit()
{
	if (!open_)
		return KEL_SUCCESS;  // joined a caller's transaction
	int rc = exec(db_, "COMMIT TRANSACTION");
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
	(void)exec(db_, "ROLLBACK TRANSACTION");
}

}  // namespace kel
