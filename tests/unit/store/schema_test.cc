#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "fault.h"
#include "mac_index.h"
#include "schema.h"
#include "sql.h"
#include "store_handle.h"
#include "test_support.h"

namespace {

class SchemaTest : public kel::test::ScratchRoot {
protected:
	void TearDown() override
	{
		kel::fault::disarm();
		ScratchRoot::TearDown();
	}

	bool exists(const std::string &p) { return access(p.c_str(), F_OK) == 0; }

	// The rows of `sql`, each as its columns joined by "|".
	std::vector<std::string> query(const char *sql)
	{
		kel_dbhandle_t h = nullptr;
		EXPECT_EQ(kel_db_open(&h, SQLITE_OPEN_READONLY), KEL_SUCCESS);
		std::vector<std::string> out;
		if (h == nullptr)
			return out;
		EXPECT_EQ(kel::for_each_row(h, sql, {},
		              [&](kel::Statement &st) {
			              std::string row;
			              for (int i = 0; i < st.columns(); i++) {
				              const char *t = st.text(i);
				              row += (i ? "|" : "") + std::string(t ? t : "NULL");
			              }
			              out.push_back(row);
			              return KEL_SUCCESS;
		              }),
		    KEL_SUCCESS);
		kel_db_close(h);
		return out;
	}
};

using Rows = std::vector<std::string>;

TEST_F(SchemaTest, NewStoreFilesHaveTheirModeAndOwner)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	for (const std::string &file : {db_path(), lock_path()}) {
		SCOPED_TRACE(file);
		struct stat st;
		ASSERT_EQ(stat(file.c_str(), &st), 0);
		EXPECT_EQ(st.st_mode & 07777, 0600u);
		EXPECT_EQ(st.st_uid, kel::schema::kOwnerUid);
		EXPECT_EQ(st.st_gid, kel::schema::kOwnerGid);
	}
	struct stat lock;
	ASSERT_EQ(stat(lock_path().c_str(), &lock), 0);
	EXPECT_EQ(lock.st_size, 0);
}

TEST_F(SchemaTest, NewStoreHoldsTheControllerDefaultsAndTheVersion)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	EXPECT_EQ(query("SELECT * FROM ctrl_tbl ORDER BY ctrl_id"),
	    (Rows{
	        "1|l2-type|vlan||||",
	        "2|uplink-port|||||",
	        "3|uri-template|ssh://||||",
	        "4|vlan-range|||||",
	        "5|vlan-range-avail|||||",
	        "6|vxlan-addr|0.0.0.0||||",
	        "7|vxlan-ipvers|v4||||",
	        "8|vxlan-mgroup|0.0.0.0||||",
	        "9|vxlan-range|||||",
	        "10|vxlan-range-avail|||||",
	    }));
	EXPECT_EQ(query("SELECT misc_name, misc_value FROM misc_tbl"), (Rows{"db-version|3"}));
}

TEST_F(SchemaTest, ColumnOrderIsTheFileFormat)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	struct Case {
		const char *table;
		Rows columns;
	} cases[] = {
	    {"kel_tbl", {"kel_uuid", "kel_name", "kel_tenant_name", "kel_status", "kel_props", "kel_vportnum_range"}},
	    {"vport_tbl",
	        {"vport_uuid", "vport_keluuid", "vport_name", "vport_props", "vport_status", "vport_vnicname",
	            "vport_hostname"}},
	    {"ipnet_tbl",
	        {"ipnet_uuid", "ipnet_keluuid", "ipnet_name", "ipnet_props", "ipnet_af", "ipnet_start_addr",
	            "ipnet_end_addr", "ipnet_avail_range", "ipnet_avail_pool_range"}},
	    {"ctrl_tbl",
	        {"ctrl_id", "ctrl_pname", "ctrl_pval", "ctrl_host", "ctrl_vlan_range", "ctrl_vxlan_range",
	            "ctrl_flat_range"}},
	    {"misc_tbl", {"misc_id", "misc_name", "misc_value"}},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.table);
		std::string sql = std::string("SELECT name FROM pragma_table_info('") + c.table + "') ORDER BY cid";
		EXPECT_EQ(query(sql.c_str()), c.columns);
	}
	// Beyond the five tables and the two views: the lookup indexes, and the MAC tails'
	// table with its index and the three triggers that keep it.
	EXPECT_EQ(query("SELECT type, count(*) FROM sqlite_master WHERE name NOT LIKE 'sqlite_%' "
	                "GROUP BY type ORDER BY type"),
	    (Rows{"index|9", "table|6", "trigger|3", "view|2"}));
	// The views put the second table's columns after the first's.
	EXPECT_EQ(query("SELECT count(*) FROM pragma_table_info('kel_vport_view')"), Rows{"13"});
	EXPECT_EQ(query("SELECT count(*) FROM pragma_table_info('kel_ipnet_view')"), Rows{"15"});
}

TEST_F(SchemaTest, DefaultsApplyToNewRows)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	kel_dbhandle_t h = nullptr;
	ASSERT_EQ(kel_db_open(&h, SQLITE_OPEN_READWRITE), KEL_SUCCESS);
	ASSERT_EQ(kel::exec(h, "INSERT INTO kel_tbl (kel_uuid, kel_name) VALUES (?, ?)", {"u1", "k1"}), KEL_SUCCESS);
	ASSERT_EQ(kel::exec(h,
	              "INSERT INTO ipnet_tbl (ipnet_uuid, ipnet_keluuid, ipnet_name, ipnet_af, "
	              "ipnet_start_addr, ipnet_end_addr) VALUES ('i1', 'u1', 'n', 2, 'a', 'b')"),
	    KEL_SUCCESS);
	kel_db_close(h);
	EXPECT_EQ(query("SELECT kel_tenant_name, kel_status, kel_props, kel_vportnum_range "
	                "FROM kel_tbl"),
	    Rows{"NULL|0|NULL|0-2147483647"});
	EXPECT_EQ(query("SELECT ipnet_avail_range, ipnet_avail_pool_range FROM ipnet_tbl"), Rows{"NULL|"});
	// A switch without ports still shows once in the joined view.
	EXPECT_EQ(query("SELECT kel_name, vport_uuid FROM kel_vport_view"), Rows{"k1|NULL"});
}

TEST_F(SchemaTest, MissingDirectoryFailsAndLeavesNoFiles)
{
	std::filesystem::remove_all(path("etc/kel"));
	EXPECT_EQ(kel_db_create(), ENOENT * 256 + KEL_E_SYSTEM);
	EXPECT_FALSE(exists(path("etc/kel")));
}

TEST_F(SchemaTest, AnExistingStoreIsNeverTouched)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	ASSERT_EQ(unlink(lock_path().c_str()), 0);
	ASSERT_EQ(chmod(db_path().c_str(), 0644), 0);
	EXPECT_EQ(kel_db_create(), KEL_SUCCESS);
	EXPECT_FALSE(exists(lock_path()));
	struct stat st;
	ASSERT_EQ(stat(db_path().c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST_F(SchemaTest, EveryFailingStatementLeavesNoFilesBehind)
{
	// BEGIN, the creation, index and MAC tail statements, COMMIT.
	int statements = 2;
	for (const char *const *stmts :
	    {kel::schema::kel_sqlstmts, kel::schema::kel_indexstmts, kel::schema::kColonTails})
		for (int i = 0; stmts[i] != nullptr; i++)
			statements++;
	ASSERT_EQ(statements, 2 + 9 + 8 + 5);
	const int injected = SQLITE_IOERR * 256 + KEL_E_SQL;
	for (int nth = 1; nth <= statements; nth++) {
		SCOPED_TRACE(nth);
		kel::fault::fail_nth_statement(nth, injected);
		EXPECT_EQ(kel_db_create(), injected);
		EXPECT_FALSE(exists(db_path()));
		EXPECT_FALSE(exists(lock_path()));
	}
	kel::fault::disarm();
	EXPECT_EQ(kel_db_create(), KEL_SUCCESS);
	EXPECT_EQ(query("SELECT count(*) FROM ctrl_tbl"), Rows{"10"});
}

TEST_F(SchemaTest, ALockFileThatCannotBeMadeUndoesTheDatabase)
{
	// A directory where the lock file should be makes its creation fail.
	ASSERT_EQ(mkdir(lock_path().c_str(), 0700), 0);
	EXPECT_EQ(kel_db_create(), EISDIR * 256 + KEL_E_SYSTEM);
	EXPECT_FALSE(exists(db_path()));
}

}  // namespace
