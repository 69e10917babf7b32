// Moving a fabric between the engines: every row of a store copied into a new one, and
// read back from both before the copy is committed.
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "audit.h"
#include "c_boundary.h"
#include "error_code.h"
#include "owners.h"
#include "paths.h"
#include "pg_conn.h"
#include "row_order.h"
#include "schema.h"
#include "sql.h"
#include "store_handle.h"

namespace {

// The tables that hold the fabric; the MAC tails are the file's triggers' to fill.
constexpr const char *kTables[] = {"kel_tbl", "vport_tbl", "ipnet_tbl", "ctrl_tbl", "misc_tbl"};

using Row = std::vector<std::optional<std::string>>;

int read_rows(kel::Db db, const char *table, std::vector<Row> *out)
{
	out->clear();
	// In the order the store lists them, which the copy then keeps.
	const std::string sql = kel::schema::in_written_order(db.pg() != nullptr, table, std::string(table) + ".*");
	return kel::for_each_row(db, sql.c_str(), {}, [&](kel::Statement &st) {
		Row &row = out->emplace_back();
		for (int i = 0; i < st.columns(); i++)
			row.push_back(st.text(i) != nullptr ? std::optional<std::string>(st.text(i)) : std::nullopt);
		return KEL_SUCCESS;
	});
}

int write_rows(kel::Db db, const char *table, const std::vector<Row> &rows)
{
	int rc = kel::exec(db, kel::SqlText("DELETE FROM %s", table));  // the new store's own first rows
	for (const Row &row : rows) {
		std::string marks;
		for (size_t i = 0; i < row.size(); i++)
			marks += i ? ", ?" : "?";
		kel::Statement st;
		if (rc == KEL_SUCCESS)
			rc = st.prepare(db, kel::SqlText("INSERT INTO %s VALUES (%s)", table, marks.c_str()));
		for (size_t i = 0; rc == KEL_SUCCESS && i < row.size(); i++)
			if (row[i])
				rc = st.bind_text(static_cast<int>(i + 1), row[i]->c_str());
		if (rc == KEL_SUCCESS)
			rc = st.step();
		if (rc != KEL_SUCCESS)
			return rc;
	}
	return rc;
}

// The IDs a database hands out next follow the copied ones (SQLite's AUTOINCREMENT keeps
// its own count from the rows it is given).
int follow_ids(kel_dbhandle_t to)
{
	if (to->edh_pg == nullptr)
		return KEL_SUCCESS;
	for (const char *sql : {"SELECT setval(pg_get_serial_sequence('ctrl_tbl', 'ctrl_id'), "
	                        "(SELECT coalesce(max(ctrl_id), 0) + 1 FROM ctrl_tbl), false)",
	         "SELECT setval(pg_get_serial_sequence('misc_tbl', 'misc_id'), "
	         "(SELECT coalesce(max(misc_id), 0) + 1 FROM misc_tbl), false)"})
		if (int rc = to->edh_pg->simple(sql); rc != KEL_SUCCESS)
			return rc;
	return KEL_SUCCESS;
}

// Into a database, the schema is made in the copy's own transaction: a copy that fails
// leaves the database as empty as it found it. A file's schema is made before, and the
// file goes when the copy fails.
int copy_rows(kel_dbhandle_t from, kel_dbhandle_t to)
{
	int version = 0;
	int rc = kel::schema::read_version(from, &version);
	if (rc == KEL_SUCCESS && version != kel::schema::kVersion)
		return KEL_E_DB_VERSION;  // upgrade the source first: the copy writes the current schema
	if (rc != KEL_SUCCESS)
		return rc;
	kel::StoreLock reading(from);
	if ((rc = reading.status()) != KEL_SUCCESS)
		return rc;
	std::optional<kel::StoreLock> file_lock;
	std::optional<kel::pg::SchemaLock> database_lock;
	if (to->edh_pg != nullptr)
		rc = database_lock.emplace(to->edh_pg).status();
	else
		rc = file_lock.emplace(to).status();
	if (rc != KEL_SUCCESS)
		return rc;
	kel::Transaction tx(to);
	if ((rc = tx.begin()) != KEL_SUCCESS)
		return rc;
	if (to->edh_pg != nullptr && (rc = kel::schema::create_tables(to)) != KEL_SUCCESS)
		return rc;
	for (const char *table : kTables) {
		std::vector<Row> rows, back;
		if ((rc = read_rows(from, table, &rows)) != KEL_SUCCESS ||
		    (rc = write_rows(to, table, rows)) != KEL_SUCCESS)
			return rc;
		// Checked row by row, as the new store will give them out.
		if ((rc = read_rows(to, table, &back)) != KEL_SUCCESS)
			return rc;
		if (back != rows)
			return kel::sql_error(SQLITE_CORRUPT);
	}
	if ((rc = follow_ids(to)) != KEL_SUCCESS)
		return rc;
	return tx.commit();
}

int copy_store(const std::string &from, const std::string &to)
{
	if (from == to)
		return KEL_E_INVALID_ARGS;
	if (!kel::store_exists_at(from))
		return KEL_E_NOTFOUND;
	if (kel::store_exists_at(to))
		return KEL_E_EXISTS;  // never over a store that holds a fabric
	int rc = to.empty() ? kel::schema::create_at(to) : KEL_SUCCESS;
	if (rc != KEL_SUCCESS)
		return rc;
	kel_dbhandle_t source = nullptr, target = nullptr;
	rc = kel::open_store_at(&source, KEL_DB_READONLY, from);
	const kel::StoreHandle source_owned(source);
	if (rc == KEL_SUCCESS)
		rc = kel::open_store_at(&target, KEL_DB_READWRITE, to);
	kel::StoreHandle target_owned(target);
	if (rc == KEL_SUCCESS)
		rc = copy_rows(source, target);
	if (rc != KEL_SUCCESS && to.empty()) {
		// A file half made would pass for a store.
		target_owned.reset();
		(void)unlink(kel::paths::under_root(kel::paths::kLockFile).c_str());
		(void)unlink(kel::paths::under_root(kel::paths::kDbFile).c_str());
	}
	return rc;
}

}  // namespace

extern "C" int kel_db_copy_store(const char *from, const char *to) noexcept
{
	// A connection string may hold a password: the record says which engines, no more.
	const auto engine = [](const char *s) {
		return s == nullptr || std::strcmp(s, "file") == 0 ? "the file" : "a database";
	};
	return kel::audit::logged(
	    [&] {
		    return kel::audit::Change{"copy-store", "", "store",
		        std::string("from ") + engine(from) + " to " + engine(to)};
	    },
	    [&] { return copy_store(from != nullptr ? from : "", to != nullptr ? to : ""); });
}
