// Making a new store: the two files, then the version-3 schema in one transaction.
#include "schema.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <kel/libkel.h>
#include "c_boundary.h"
#include "error_code.h"
#include "mac_index.h"
#include "owners.h"
#include "paths.h"
#include "sql.h"
#include "store_handle.h"

namespace kel::schema {

// Column order is part of the file format: row readers read columns by position.
// clang-format off
const char *const kel_sqlstmts[] = {
	"CREATE TABLE kel_tbl ("
	"kel_uuid\t\tCHAR(36) PRIMARY KEY NOT NULL,"
	"kel_name\t\tCHAR(128) NOT NULL,"
	"kel_tenant_name\t\tCHAR(128) DEFAULT NULL,"
	"kel_status\t\tINTEGER DEFAULT 0,"
	"kel_props\t\tVARCHAR DEFAULT NULL,"
	"kel_vportnum_range\tVARCHAR DEFAULT '0-2147483647')",

	"CREATE TABLE vport_tbl ("
	"vport_uuid\t\tCHAR(36) PRIMARY KEY NOT NULL,"
	"vport_keluuid\t\tCHAR(36) NOT NULL,"
	"vport_name\t\tCHAR(128) NOT NULL,"
	"vport_props\t\tVARCHAR DEFAULT NULL,"
	"vport_status\t\tINTEGER DEFAULT 0,"
	"vport_vnicname\t\tCHAR(32) DEFAULT NULL,"
	"vport_hostname\t\tCHAR(1024) DEFAULT NULL)",

	"CREATE TABLE ipnet_tbl ("
	"ipnet_uuid\t\tCHAR(36) PRIMARY KEY NOT NULL,"
	"ipnet_keluuid\t\tCHAR(36) NOT NULL,"
	"ipnet_name\t\tCHAR(128) NOT NULL,"
	"ipnet_props\t\tVARCHAR DEFAULT NULL,"
	"ipnet_af\t\tINTEGER NOT NULL,"
	"ipnet_start_addr\tCHAR(50) NOT NULL,"
	"ipnet_end_addr\t\tCHAR(50) NOT NULL,"
	"ipnet_avail_range\tVARCHAR DEFAULT NULL,"
	"ipnet_avail_pool_range\tVARCHAR DEFAULT '')",

	"CREATE TABLE ctrl_tbl ("
	"ctrl_id\t\tINTEGER PRIMARY KEY ASC AUTOINCREMENT,"
	"ctrl_pname\t\tCHAR(128) NOT NULL,"
	"ctrl_pval\t\tVARCHAR DEFAULT NULL,"
	"ctrl_host\t\tCHAR(256) DEFAULT NULL,"
	"ctrl_vlan_range\t\tVARCHAR DEFAULT '',"
	"ctrl_vxlan_range\tVARCHAR DEFAULT '',"
	"ctrl_flat_range\t\tVARCHAR DEFAULT '')",

	"INSERT INTO ctrl_tbl (ctrl_pname, ctrl_pval, ctrl_host) VALUES"
	"('l2-type', 'vlan', ''),"
	"('uplink-port', '', ''),"
	"('uri-template', 'ssh://', ''),"
	"('vlan-range', '', ''),"
	"('vlan-range-avail', '', ''),"
	"('vxlan-addr', '0.0.0.0', ''),"
	"('vxlan-ipvers', 'v4', ''),"
	"('vxlan-mgroup', '0.0.0.0', ''),"
	"('vxlan-range', '', ''),"
	"('vxlan-range-avail', '', '')",

	"CREATE TABLE misc_tbl ("
	"misc_id\t\tINTEGER PRIMARY KEY ASC AUTOINCREMENT,"
	"misc_name\t\tCHAR(128) NOT NULL,"
	"misc_value\t\tVARCHAR DEFAULT NULL)",

	"INSERT INTO misc_tbl (misc_name, misc_value) VALUES('db-version', '3')",

	"CREATE VIEW kel_vport_view AS SELECT * FROM kel_tbl LEFT JOIN vport_tbl "
	"ON kel_uuid = vport_keluuid",

	"CREATE VIEW kel_ipnet_view AS SELECT * FROM kel_tbl LEFT JOIN ipnet_tbl "
	"ON kel_uuid = ipnet_keluuid",

	nullptr,
};

// Without these, finding one switch or port by name, or a switch's ports and networks,
// or whether a MAC address is taken, scans whole tables: the cost of an operation on one
// object would grow with the store.
const char *const kel_indexstmts[] = {
	"CREATE INDEX kel_name_idx ON kel_tbl (kel_name)",
	"CREATE INDEX vport_keluuid_idx ON vport_tbl (vport_keluuid)",
	"CREATE INDEX vport_name_idx ON vport_tbl (vport_name)",
	"CREATE INDEX vport_vnicname_idx ON vport_tbl (vport_vnicname)",
	// Whether a switch is busy, without reading its free ports: only bound ports are in it.
	"CREATE INDEX vport_bound_idx ON vport_tbl (vport_keluuid) WHERE vport_status = 1",
	"CREATE INDEX ipnet_keluuid_idx ON ipnet_tbl (ipnet_keluuid)",
	"CREATE INDEX ipnet_name_idx ON ipnet_tbl (ipnet_name)",
	kMacKeyIndex,
	nullptr,
};
// clang-format on

int has_table(Db db, const char *name, bool *found)
{
	// Asked of the schema SQLite has already read, rather than by a query of its own: an
	// add asks this once, and preparing a statement costs a short-lived process more than
	// the answer. Without a column, SQLite answers whether the table exists; a missing table
	// is its plain error, anything else a failure to read the schema.
	*found = false;
	const int sqlrc = sqlite3_table_column_metadata(db.lite(), "main", name, nullptr, nullptr, nullptr, nullptr,
	    nullptr, nullptr);
	if (sqlrc == SQLITE_OK)
		*found = true;
	return sqlrc == SQLITE_OK || sqlrc == SQLITE_ERROR ? KEL_SUCCESS : kel::sql_error(sqlrc);
}

int read_version(Db db, int *version)
{
	bool store = false;
	int rc = has_table(db, "misc_tbl", &store);
	if (rc != KEL_SUCCESS)
		return rc;
	if (!store)
		return kel::sql_error(SQLITE_NOTADB);
	std::string text;
	bool found = false;
	rc = kel::for_each_row(db, "SELECT misc_value FROM misc_tbl WHERE misc_name = 'db-version'", {},
	    [&](kel::Statement &st) {
		    if (!found && st.text(0) != nullptr) {
			    text = st.text(0);
			    found = true;
		    }
		    return KEL_SUCCESS;
	    });
	if (rc != KEL_SUCCESS)
		return rc;
	char *end = nullptr;
	const long v = found ? std::strtol(text.c_str(), &end, 10) : 0;
	if (!found || end == text.c_str() || *end != '\0' || v < 1 || v > 1000000)
		return kel::sql_error(SQLITE_CORRUPT);
	*version = static_cast<int>(v);
	return KEL_SUCCESS;
}

}  // namespace kel::schema

namespace {

// Creates `path` if absent (never truncating) and gives it the store files' mode and owner.
int make_store_file(const std::string &path)
{
	int fd = open(path.c_str(), O_CREAT | O_RDONLY | O_CLOEXEC, S_IRUSR | S_IWUSR);
	if (fd == -1)
		return kel::last_sys_error();
	close(fd);
	if (chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 ||
	    chown(path.c_str(), kel::schema::kOwnerUid, kel::schema::kOwnerGid) != 0)
		return kel::last_sys_error();
	return KEL_SUCCESS;
}

int create_schema()
{
	kel_dbhandle_t raw = nullptr;
	// Not kel_db_open: it would refuse a store without a version, which this one is yet.
	int rc = kel::open_store(&raw, SQLITE_OPEN_READWRITE);
	if (rc != KEL_SUCCESS)
		return rc;
	const kel::StoreHandle handle(raw);
	// No store lock: nobody can be using a store that does not exist yet.
	kel::Transaction tx(handle.get());
	rc = tx.begin();
	for (const char *const *stmts :
	    {kel::schema::kel_sqlstmts, kel::schema::kel_indexstmts, kel::schema::kColonTails})
		for (int i = 0; rc == KEL_SUCCESS && stmts[i] != nullptr; i++)
			rc = kel_sqlite3_exec(handle->edh_db, "%s", 1, stmts[i], 0);
	if (rc == KEL_SUCCESS)
		rc = tx.commit();
	return rc;
}

int create_store()
{
	if (kel_db_exists())
		return KEL_SUCCESS;

	const std::string dir = kel::paths::under_root(kel::paths::kEtcDir);
	const std::string db = kel::paths::under_root(kel::paths::kDbFile);
	const std::string lock = kel::paths::under_root(kel::paths::kLockFile);

	struct stat st;
	int rc = KEL_SUCCESS;
	if (stat(dir.c_str(), &st) != 0)
		rc = kel::last_sys_error();
	else if (!S_ISDIR(st.st_mode))
		rc = kel::sys_error(ENOTDIR);
	if (rc == KEL_SUCCESS)
		rc = make_store_file(db);
	if (rc == KEL_SUCCESS)
		rc = make_store_file(lock);
	if (rc == KEL_SUCCESS)
		rc = create_schema();
	if (rc != KEL_SUCCESS) {
		// A half-made store would pass kel_db_exists and never be made again.
		(void)unlink(lock.c_str());
		(void)unlink(db.c_str());
	}
	return rc;
}

}  // namespace

extern "C" int kel_db_create(void) noexcept
{
	return kel::c_boundary(create_store);
}
