// Upgrading stores of schema versions 1 and 2, built here from their table layouts.
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <kel/libkel.h>
#include "fault.h"
#include "sql.h"
#include "store_handle.h"
#include "test_support.h"

namespace {

// The version-1 layout: no pool columns, no per-port ranges, NULL hosts.
const char *const kVersion1[] = {
    "CREATE TABLE kel_tbl (kel_uuid CHAR(36) PRIMARY KEY NOT NULL, kel_name CHAR(128) NOT NULL, "
    "kel_tenant_name CHAR(128) DEFAULT NULL, kel_status INTEGER DEFAULT 0, kel_props VARCHAR "
    "DEFAULT NULL, kel_vportnum_range VARCHAR DEFAULT '0-2147483647')",
    "CREATE TABLE vport_tbl (vport_uuid CHAR(36) PRIMARY KEY NOT NULL, vport_keluuid CHAR(36) NOT "
    "NULL, vport_name CHAR(128) NOT NULL, vport_props VARCHAR DEFAULT NULL, vport_status INTEGER "
    "DEFAULT 0, vport_vnicname CHAR(32) DEFAULT NULL, vport_hostname CHAR(1024) DEFAULT NULL)",
    "CREATE TABLE ipnet_tbl (ipnet_uuid CHAR(36) PRIMARY KEY NOT NULL, ipnet_keluuid CHAR(36) NOT "
    "NULL, ipnet_name CHAR(128) NOT NULL, ipnet_props VARCHAR DEFAULT NULL, ipnet_af INTEGER NOT "
    "NULL, ipnet_start_addr CHAR(50) NOT NULL, ipnet_end_addr CHAR(50) NOT NULL, "
    "ipnet_avail_range VARCHAR DEFAULT NULL)",
    "CREATE TABLE ctrl_tbl (ctrl_id INTEGER PRIMARY KEY ASC AUTOINCREMENT, ctrl_pname CHAR(128) NOT "
    "NULL, ctrl_pval VARCHAR DEFAULT NULL, ctrl_host CHAR(256) DEFAULT NULL)",
    "INSERT INTO ctrl_tbl (ctrl_pname, ctrl_pval) VALUES ('l2-type', 'vlan'), ('uplink-port', "
    "'net0'), ('vlan-range', '100-199'), ('vlan-range-avail', '101-199'), ('vxlan-addr', "
    "'0.0.0.0'), ('vxlan-ipvers', 'v4'), ('vxlan-mgroup', '0.0.0.0'), ('vxlan-range', ''), "
    "('vxlan-range-avail', '')",
    "CREATE TABLE misc_tbl (misc_id INTEGER PRIMARY KEY ASC AUTOINCREMENT, misc_name CHAR(128) NOT "
    "NULL, misc_value VARCHAR DEFAULT NULL)",
    "INSERT INTO misc_tbl (misc_name, misc_value) VALUES ('db-version', '1')",
    "CREATE VIEW kel_vport_view AS SELECT * FROM kel_tbl LEFT JOIN vport_tbl ON kel_uuid = vport_keluuid",
    "CREATE VIEW kel_ipnet_view AS SELECT * FROM kel_tbl LEFT JOIN ipnet_tbl ON kel_uuid = ipnet_keluuid",
    "INSERT INTO kel_tbl (kel_uuid, kel_name, kel_tenant_name, kel_props) VALUES "
    "('00000000-0000-4000-8000-000000000001', 'web', 'sys-global', 'vlanid=100,l2-type=vlan')",
    "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props) VALUES "
    "('00000000-0000-4000-8000-000000000002', '00000000-0000-4000-8000-000000000001', 'p1', "
    "'ipaddr=192.168.0.2')",
    "INSERT INTO ipnet_tbl VALUES ('00000000-0000-4000-8000-000000000003', "
    "'00000000-0000-4000-8000-000000000001', 'n1', "
    "'defrouter=192.168.0.1,subnet=192.168.0.0/24', 2, '192.168.0.1', '192.168.0.254', "
    "'192.168.0.3-192.168.0.254')",
    nullptr,
};

class Upgrade : public kel::test::ScratchRoot {
protected:
	void TearDown() override
	{
		kel::fault::disarm();
		ScratchRoot::TearDown();
	}

	// Writes a store from `stmts` (then `extra`, when given) with its lock file.
	void make_store(const char *const *stmts, const char *extra = nullptr)
	{
		sqlite3 *db = nullptr;
		ASSERT_EQ(sqlite3_open(db_path().c_str(), &db), SQLITE_OK);
		for (int i = 0; stmts[i] != nullptr; i++)
			ASSERT_EQ(kel::exec(db, stmts[i]), KEL_SUCCESS) << stmts[i];
		if (extra != nullptr) {
			ASSERT_EQ(kel::exec(db, extra), KEL_SUCCESS) << extra;
		}
		sqlite3_close(db);
		std::ofstream(lock_path()).flush();
	}

	std::string value(const std::string &sql)
	{
		kel_dbhandle_t h = nullptr;
		EXPECT_EQ(kel_db_open(&h, KEL_DB_READONLY), KEL_SUCCESS);
		std::string out = "<none>";
		kel::for_each_row(h, sql.c_str(), {}, [&](kel::Statement &st) {
			out = st.text(0) ? st.text(0) : "<null>";
			return KEL_E_EXISTS;
		});
		kel_db_close(h);
		return out;
	}
};

TEST_F(Upgrade, FromVersionOne)
{
	make_store(kVersion1);
	ASSERT_EQ(kel_db_upgrade(), KEL_SUCCESS);
	EXPECT_EQ(value("SELECT misc_value FROM misc_tbl WHERE misc_name = 'db-version'"), "3");
	// The network's pool is its span less the router; its pool range starts as its free set.
	EXPECT_EQ(value("SELECT ipnet_props FROM ipnet_tbl"),
	    "subnet=192.168.0.0/24,defrouter=192.168.0.1,pool=192.168.0.2-192.168.0.254");
	EXPECT_EQ(value("SELECT ipnet_avail_pool_range FROM ipnet_tbl"), "192.168.0.3-192.168.0.254");
	// Hosts are '' rather than NULL; the fabric's uplink carries the VLAN range.
	EXPECT_EQ(value("SELECT count(*) FROM ctrl_tbl WHERE ctrl_host IS NULL"), "0");
	EXPECT_EQ(value("SELECT vport_hostname FROM vport_tbl"), "");
	EXPECT_EQ(value("SELECT ctrl_vlan_range FROM ctrl_tbl WHERE ctrl_pname = 'uplink-port'"), "100-199");
	EXPECT_EQ(value("SELECT ctrl_pval || '@' || ctrl_host FROM ctrl_tbl WHERE ctrl_pname = 'uri-template'"),
	    "ssh://@");
	EXPECT_EQ(value("SELECT ctrl_flat_range FROM ctrl_tbl WHERE ctrl_pname = 'l2-type'"), "");
	EXPECT_EQ(value("SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name LIKE '%_idx'"), "9");

	// The upgraded store works: its records read, and a second upgrade changes nothing.
	kel_dbhandle_t h = nullptr;
	ASSERT_EQ(kel_db_open(&h, KEL_DB_READWRITE), KEL_SUCCESS);
	list_t list;
	ASSERT_EQ(kel_db_get_kellist(h, "sys-global", "web", &list, 0), KEL_SUCCESS);
	kel_free_kellist(&list);
	kel_db_close(h);
	EXPECT_EQ(kel_db_upgrade(), KEL_SUCCESS);
}

TEST_F(Upgrade, FromVersionTwoAndWithoutNetworks)
{
	// A version-1 store without networks, taken to version 2 by hand: only the version-3
	// steps are left to run.
	make_store(kVersion1, "DELETE FROM ipnet_tbl");
	sqlite3 *db = nullptr;
	ASSERT_EQ(sqlite3_open(db_path().c_str(), &db), SQLITE_OK);
	for (const char *stmt : {"ALTER TABLE ipnet_tbl ADD ipnet_avail_pool_range VARCHAR DEFAULT ''",
	         "ALTER TABLE ctrl_tbl ADD ctrl_vlan_range VARCHAR DEFAULT ''",
	         "ALTER TABLE ctrl_tbl ADD ctrl_vxlan_range VARCHAR DEFAULT ''", "UPDATE ctrl_tbl SET ctrl_host = ''",
	         "UPDATE misc_tbl SET misc_value = '2'"})
		ASSERT_EQ(kel::exec(db, stmt), KEL_SUCCESS);
	sqlite3_close(db);
	ASSERT_EQ(kel_db_upgrade(), KEL_SUCCESS);
	EXPECT_EQ(value("SELECT misc_value FROM misc_tbl"), "3");
	EXPECT_EQ(value("SELECT count(*) FROM ctrl_tbl WHERE ctrl_pname = 'uri-template'"), "1");
}

TEST_F(Upgrade, StoresItCannotUpgradeStayUntouched)
{
	struct {
		const char *version;
		int rc;
	} cases[] = {
	    {"UPDATE misc_tbl SET misc_value = '4'", KEL_E_DB_VERSION},
	    // No version to upgrade from: a damaged store, as a write handle finds it.
	    {"DELETE FROM misc_tbl", SQLITE_CORRUPT * 256 + KEL_E_SQL},
	    {"UPDATE misc_tbl SET misc_value = 'one'", SQLITE_CORRUPT * 256 + KEL_E_SQL},
	    {"UPDATE misc_tbl SET misc_value = '0'", SQLITE_CORRUPT * 256 + KEL_E_SQL},
	    {"DROP TABLE misc_tbl", SQLITE_NOTADB * 256 + KEL_E_SQL},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.version);
		std::filesystem::remove(db_path());
		make_store(kVersion1, c.version);
		EXPECT_EQ(kel_db_upgrade(), c.rc);
		EXPECT_EQ(value("SELECT count(*) FROM pragma_table_info('ctrl_tbl')"), "4");
	}
}

TEST_F(Upgrade, AFailedUpgradeRollsBack)
{
	make_store(kVersion1);
	// Fail each statement of the upgrade in turn; the store must stay at version 1.
	const int statements = kel::test::for_each_failing_statement(
	    kel_db_upgrade,
	    [&](int, int rc) {
		    EXPECT_NE(rc, KEL_SUCCESS);
		    EXPECT_EQ(value("SELECT misc_value FROM misc_tbl"), "1");
		    EXPECT_EQ(value("SELECT count(*) FROM pragma_table_info('ctrl_tbl')"), "4");
		    EXPECT_EQ(value("SELECT ipnet_props FROM ipnet_tbl"),
		        "defrouter=192.168.0.1,subnet=192.168.0.0/24");
	    },
	    SQLITE_IOERR * 256 + KEL_E_SQL, 100);
	EXPECT_GE(statements, 10);
	EXPECT_EQ(value("SELECT misc_value FROM misc_tbl"), "3");
}

}  // namespace
