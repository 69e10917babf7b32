// The store on PostgreSQL: the rewrite of the library's SQL, and (when the tests run on
// a database, KEL_TEST_PG) the store lock as an advisory lock, the codes failures are
// reported with, and a connection that comes back after the server dropped it.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <kel/libkel.h>
#include "error_code.h"
#include "owners.h"
#include "pg_conn.h"
#include "pg_dialect.h"
#include "store_fixture.h"
#include "store_handle.h"

namespace {

TEST(PgDialect, RewritesWhatPostgresqlSpellsOtherwise)
{
	const struct {
		const char *sqlite, *pg;
		int highest;
	} cases[] = {
	    {"SELECT 1 FROM t WHERE a = ? AND b = ?", "SELECT 1 FROM t WHERE a = $1 AND b = $2", 2},
	    // Numbered parameters are renumbered densely, in the order first met.
	    {"SELECT * FROM t WHERE a = ?101 OR b LIKE ?100 OR c = ?101",
	        "SELECT * FROM t WHERE a = $1 OR b ILIKE $2 ESCAPE '' OR c = $1", 101},
	    // A bare mark after a numbered one takes the next number, as SQLite counts.
	    {"VALUES (?3, ?)", "VALUES ($1, $2)", 4},
	    {"x LIKE ?1", "x ILIKE $1 ESCAPE ''", 1},
	    {"a == ? AND b = 'x==y'", "a = $1 AND b = 'x==y'", 1},
	    {"a IS NOT b AND c IS d", "a IS DISTINCT FROM b AND c IS NOT DISTINCT FROM d", 0},
	    {"a IS NULL OR a IS NOT NULL", "a IS NULL OR a IS NOT NULL", 0},
	    {"instr(x, ':') + ifnull(y, 0) + length(trim(z, 'ab'))",
	        "strpos(x, ':') + coalesce(y, 0) + length(btrim(z, 'ab'))", 0},
	    // Quoted text and names are left alone, marks and keywords in them included.
	    {"SELECT 'is ? like' FROM \"instr\" WHERE a = 'it''s ?'",
	        "SELECT 'is ? like' FROM \"instr\" WHERE a = 'it''s ?'", 0},
	    // A column named like a function, not called, stays.
	    {"SELECT trim FROM t", "SELECT trim FROM t", 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.sqlite);
		const kel::pg::Translated t = kel::pg::translate(c.sqlite);
		EXPECT_EQ(t.sql, c.pg);
		EXPECT_EQ(t.highest, c.highest);
	}
}

TEST(PgDialect, FailuresReadAsTheCodesOfTheFileStore)
{
	const struct {
		const char *sqlstate;
		int sqlite;
	} cases[] = {
	    {"23505", SQLITE_CONSTRAINT},                      // unique violation
	    {"40P01", SQLITE_BUSY},                            // deadlock
	    {"25006", SQLITE_READONLY},                        // a standby
	    {"53100", SQLITE_FULL},                            // disk full
	    {"53200", SQLITE_NOMEM}, {"57P01", SQLITE_IOERR},  // the server is shutting down
	    {"08006", SQLITE_IOERR},                           // the connection failed
	    {nullptr, SQLITE_IOERR},                           // no answer at all
	    {"42P01", SQLITE_ERROR},                           // no such table
	};
	for (const auto &c : cases)
		EXPECT_EQ(kel::pg::code_of_sqlstate(c.sqlstate), kel::sql_error(c.sqlite))
		    << (c.sqlstate ? c.sqlstate : "-");
}

class PgStore : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		if (kel::test::on_database() == nullptr)
			GTEST_SKIP() << "needs a database (KEL_TEST_PG)";
		StoreFixture::SetUp();
	}
	kel_dbhandle_t open(int flags)
	{
		kel_dbhandle_t h = nullptr;
		EXPECT_EQ(kel_db_open(&h, flags), KEL_SUCCESS);
		return h;
	}
};

// Advisory locks belong to sessions: two handles of one process exclude each other as
// handles on a store file do.
TEST_F(PgStore, TheStoreLockExcludesAsTheFileLockDoes)
{
	const int busy = kel::sys_error(EAGAIN);
	const kel::StoreHandle writer(open(KEL_DB_READWRITE)), reader1(open(KEL_DB_READONLY)),
	    reader2(open(KEL_DB_READONLY));
	ASSERT_EQ(kel_lock(writer.get()), KEL_SUCCESS);
	EXPECT_EQ(kel::try_lock(reader1.get()), busy);
	EXPECT_EQ(kel::try_lock(h_), busy);
	kel_unlock(writer.get());

	ASSERT_EQ(kel::try_lock(reader1.get()), KEL_SUCCESS);
	ASSERT_EQ(kel::try_lock(reader2.get()), KEL_SUCCESS);
	EXPECT_EQ(kel::try_lock(writer.get()), busy);
	kel_unlock(reader1.get());
	EXPECT_EQ(kel::try_lock(writer.get()), busy);
	kel_unlock(reader2.get());
	EXPECT_EQ(kel::try_lock(writer.get()), KEL_SUCCESS);
	kel_unlock(writer.get());
}

TEST_F(PgStore, AFailureComesWithTheFileStoresCode)
{
	add_kel(1, "web");
	EXPECT_EQ(kel::exec(h_, "INSERT INTO kel_tbl (kel_uuid, kel_name) VALUES (?, 'dup')", {uuid(1)}),
	    kel::sql_error(SQLITE_CONSTRAINT));
	// SQLite's lenient typing is not the server's: what it refuses is an error, not a crash.
	EXPECT_NE(kel::exec(h_, "SELECT nosuch FROM kel_tbl"), KEL_SUCCESS);
	EXPECT_EQ(rows("kel_tbl"), 1);
}

// A server that drops the session (a failover, a restart) costs the operation under way;
// the next one connects again.
TEST_F(PgStore, ALostConnectionIsMadeAgainAtTheNextLock)
{
	std::unique_ptr<kel::pg::Conn> admin;
	ASSERT_EQ(kel::pg::Conn::open(kel::test::on_database(), &admin), KEL_SUCCESS);
	std::string pid;
	ASSERT_EQ(h_->edh_pg->simple("SELECT pg_backend_pid()", &pid), KEL_SUCCESS);
	ASSERT_EQ(admin->simple(("SELECT pg_terminate_backend(" + pid + ")").c_str()), KEL_SUCCESS);

	EXPECT_EQ(kel::exec(h_, "SELECT 1"), kel::sql_error(SQLITE_IOERR));
	kel_t *k = nullptr;
	ASSERT_EQ(kel_db_create_kel(h_, nullptr, "after", "l2-type=flat", 0, &k), KEL_SUCCESS);
	kel_free_kel(k);
	EXPECT_EQ(rows("kel_tbl"), 1);

	// A reader's session comes back as it was: read-only.
	kel::StoreHandle reader;
	ASSERT_EQ(kel::db_open(&reader, KEL_DB_READONLY), KEL_SUCCESS);
	ASSERT_EQ(reader->edh_pg->simple("SELECT pg_backend_pid()", &pid), KEL_SUCCESS);
	ASSERT_EQ(admin->simple(("SELECT pg_terminate_backend(" + pid + ")").c_str()), KEL_SUCCESS);
	EXPECT_EQ(kel::exec(reader.get(), "SELECT 1"), kel::sql_error(SQLITE_IOERR));
	EXPECT_TRUE(kel_db_kel_exists(reader.get(), nullptr, "after"));  // made again here
	EXPECT_EQ(kel::exec(reader.get(), "DELETE FROM kel_tbl"), kel::sql_error(SQLITE_READONLY));
}

// A fabric moves from the database to the file and on to another database, row for row;
// a copy never lands on a store that holds one, nor on its own source.
TEST_F(PgStore, AStoreIsCopiedBetweenEnginesRowForRow)
{
	make_web("subnet=10.1.0.0/24", {"p1", "p2"});
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "vlan-range=100-199", nullptr), KEL_SUCCESS);
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "uplink-port=eth1", "node1"), KEL_SUCCESS);
	const Tables original = snapshot();
	const std::string here = kel::test::on_database();
	const std::string other = here + " dbname=kel_copy";
	std::unique_ptr<kel::pg::Conn> admin;
	ASSERT_EQ(kel::pg::Conn::open(here, &admin), KEL_SUCCESS);
	(void)admin->simple("DROP DATABASE IF EXISTS kel_copy");
	ASSERT_EQ(admin->simple("CREATE DATABASE kel_copy"), KEL_SUCCESS) << admin->last_error();

	ASSERT_EQ(kel_db_copy_store(here.c_str(), ""), KEL_SUCCESS);
	ASSERT_EQ(kel_db_copy_store("", other.c_str()), KEL_SUCCESS);
	for (const std::string &at : {std::string(), other}) {
		SCOPED_TRACE(at.empty() ? "file" : at);
		kel_dbhandle_t raw = nullptr;
		ASSERT_EQ(kel::open_store_at(&raw, KEL_DB_READWRITE, at), KEL_SUCCESS);
		const kel::StoreHandle copy(raw);
		EXPECT_EQ(snapshot(copy.get()), original);
		// The copy hands out what the original would: the next controller property row
		// follows the copied ones.
		ASSERT_EQ(kel::exec(copy.get(),
		              "INSERT INTO ctrl_tbl (ctrl_pname, ctrl_pval, ctrl_host) VALUES ('x', '', 'h')"),
		    KEL_SUCCESS);
	}
	EXPECT_EQ(kel_db_copy_store("", other.c_str()), KEL_E_EXISTS);
	EXPECT_EQ(kel_db_copy_store(here.c_str(), here.c_str()), KEL_E_INVALID_ARGS);
	admin.reset();
	ASSERT_EQ(kel::pg::Conn::open(here, &admin), KEL_SUCCESS);
	(void)admin->simple("DROP DATABASE kel_copy WITH (FORCE)");
}

// A database that an older build made lacks the MAC tails and the rows' order; the
// upgrade makes them, with what keeps them, and fills them from the rows there are.
TEST_F(PgStore, AnOlderBuildsDatabaseGetsWhatItLacksAtTheUpgrade)
{
	make_web("subnet=10.1.0.0/24", {"p1", "p2"});
	for (const char *drop : {"DROP FUNCTION row_order_keep() CASCADE", "DROP TABLE row_order_tbl",
	         "DROP FUNCTION vport_colon_keep() CASCADE", "DROP TABLE vport_colon_tbl"})
		ASSERT_EQ(kel::exec(h_, drop), KEL_SUCCESS) << drop;
	ASSERT_EQ(kel_db_upgrade(), KEL_SUCCESS);
	ASSERT_EQ(kel_db_upgrade(), KEL_SUCCESS);  // and again changes nothing
	int rows = 0;
	ASSERT_EQ(kel::for_each_row(h_, "SELECT count(*) FROM row_order_tbl", {},
	              [&](kel::Statement &st) {
		              rows = static_cast<int>(st.integer(0));
		              return KEL_SUCCESS;
	              }),
	    KEL_SUCCESS);
	EXPECT_EQ(rows, 4);  // the kel, its network and its two ports
	// Kept from now on: a new port has its place, after the others.
	ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "web", "p0", nullptr, nullptr, 0), KEL_SUCCESS);
	kel_t *k = nullptr;
	ASSERT_EQ(kel_db_get_kelvport(h_, "sys-global", "web", "p0", &k), KEL_SUCCESS);
	kel_free_kel(k);
	list_t ports;
	ASSERT_EQ(kel_db_get_filtered_vportlist(h_, "kel=web", &ports, 0), KEL_SUCCESS);
	std::string names;
	for (auto *v = static_cast<kel_vport_t *>(list_head(&ports)); v != nullptr;
	     v = static_cast<kel_vport_t *>(list_next(&ports, v)))
		names += std::string(v->evp_name) + " ";
	kel_free_vportlist(&ports);
	EXPECT_EQ(names.substr(names.size() - 3), "p0 ");
}

}  // namespace
