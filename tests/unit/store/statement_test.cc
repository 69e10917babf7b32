#include <sqlite3.h>

#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "fault.h"
#include "sql.h"
#include "statement.h"
#include "statement_cache.h"
#include "test_support.h"

namespace {

// An in-memory database with one table to work on.
class StatementTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_EQ(sqlite3_open(":memory:", &db_), SQLITE_OK);
		ASSERT_EQ(
		    kel_sqlite3_exec(db_, "%s", 1, "CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, n INTEGER)", 0),
		    KEL_SUCCESS);
	}
	void TearDown() override
	{
		kel::fault::disarm();
		sqlite3_close(db_);
	}

	// Every row of t as "id:name:n", NULLs as "-".
	std::vector<std::string> rows()
	{
		std::vector<std::string> out;
		int rc = kel::for_each_row(db_, "SELECT id, name, n FROM t ORDER BY id", {}, [&](kel::Statement &st) {
			const char *name = st.text(1);
			out.push_back(std::to_string(st.integer(0)) + ":" + (name ? name : "-") + ":" +
			    std::to_string(st.integer(2)));
			return KEL_SUCCESS;
		});
		EXPECT_EQ(rc, KEL_SUCCESS);
		return out;
	}

	sqlite3 *db_ = nullptr;
};

using Rows = std::vector<std::string>;

TEST_F(StatementTest, TypedValuesBindInOrder)
{
	ASSERT_EQ(kel_sqlite3_exec(db_, "INSERT INTO %s (id, name, n) VALUES (?, ?, ?)", 1, "t", 3, DATA_TYPE_INT32, 1,
	              DATA_TYPE_STRING, "one", DATA_TYPE_INT32, -5),
	    KEL_SUCCESS);
	ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id, name, n) VALUES (?, ?, ?)", {2, "two", 7}), KEL_SUCCESS);
	EXPECT_EQ(rows(), (Rows{"1:one:-5", "2:two:7"}));
}

TEST_F(StatementTest, AttributeSetItemsBindByNumberAndKeepThePositionCount)
{
	attrset_t *set = nullptr;
	ASSERT_EQ(attrset_create(&set, ATTRSET_UNIQUE_NAME), 0);
	ASSERT_EQ(attrset_add_string(set, "3", "third"), 0);
	ASSERT_EQ(attrset_add_int32(set, "4", 44), 0);

	sqlite3_stmt *stmt = nullptr;
	// The set sits between two plain items: they still take positions 1 and 2.
	ASSERT_EQ(kel_sqlite3_prepare(db_, &stmt, "SELECT ?1, ?2, ?3, ?4", 0, 3, DATA_TYPE_STRING, "first",
	              DATA_TYPE_ATTRSET, set, DATA_TYPE_STRING, "second"),
	    KEL_SUCCESS);
	ASSERT_EQ(kel_sqlite3_step(stmt), KEL_E_CONTINUE);
	EXPECT_STREQ(reinterpret_cast<const char *>(sqlite3_column_text(stmt, 0)), "first");
	EXPECT_STREQ(reinterpret_cast<const char *>(sqlite3_column_text(stmt, 1)), "second");
	EXPECT_STREQ(reinterpret_cast<const char *>(sqlite3_column_text(stmt, 2)), "third");
	EXPECT_EQ(sqlite3_column_type(stmt, 3), SQLITE_INTEGER);
	EXPECT_EQ(sqlite3_column_int(stmt, 3), 44);
	EXPECT_EQ(kel_sqlite3_step(stmt), KEL_SUCCESS);
	kel_sqlite3_finalize(stmt);
	attrset_free(set);
}

TEST_F(StatementTest, AnEmptyValueListBindsNothing)
{
	sqlite3_stmt *stmt = nullptr;
	ASSERT_EQ(kel_sqlite3_prepare(db_, &stmt, "SELECT ?1 IS NULL", 0, 0), KEL_SUCCESS);
	ASSERT_EQ(kel_sqlite3_step(stmt), KEL_E_CONTINUE);
	EXPECT_EQ(sqlite3_column_int(stmt, 0), 1);
	kel_sqlite3_finalize(stmt);
	kel_sqlite3_finalize(nullptr);
}

TEST_F(StatementTest, UpdateMatchingNoRowSucceeds)
{
	EXPECT_EQ(
	    kel_sqlite3_exec(db_, "UPDATE t SET n = ? WHERE id = ?", 0, 2, DATA_TYPE_INT32, 1, DATA_TYPE_INT32, 99),
	    KEL_SUCCESS);
	EXPECT_EQ(sqlite3_changes(db_), 0);
}

TEST_F(StatementTest, ExecSkipsResultRows)
{
	ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id) VALUES (1), (2), (3)"), KEL_SUCCESS);
	EXPECT_EQ(kel::exec(db_, "SELECT * FROM t"), KEL_SUCCESS);
}

TEST_F(StatementTest, FailuresCarryTheSqliteCode)
{
	sqlite3_stmt *stmt = reinterpret_cast<sqlite3_stmt *>(1);
	EXPECT_EQ(kel_sqlite3_prepare(db_, &stmt, "SELEC nonsense", 0, 0), SQLITE_ERROR * 256 + KEL_E_SQL);
	EXPECT_EQ(stmt, nullptr);
	EXPECT_EQ(kel_sqlite3_exec(db_, "SELECT * FROM %s", 1, "no_such_table", 0), SQLITE_ERROR * 256 + KEL_E_SQL);

	ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id) VALUES (?)", {1}), KEL_SUCCESS);
	EXPECT_EQ(kel::exec(db_, "INSERT INTO t (id) VALUES (?)", {1}), SQLITE_CONSTRAINT * 256 + KEL_E_SQL);
	// Binding past the parameters is a bind failure; the statement is left to the caller.
	stmt = nullptr;
	EXPECT_EQ(kel_sqlite3_prepare(db_, &stmt, "SELECT ?", 0, 2, DATA_TYPE_INT32, 1, DATA_TYPE_INT32, 2),
	    SQLITE_RANGE * 256 + KEL_E_SQL);
	EXPECT_NE(stmt, nullptr);
	kel_sqlite3_finalize(stmt);
}

TEST_F(StatementTest, CallerDataNeverBecomesSql)
{
	const char *hostile = "x'); DROP TABLE t; --\"%s%n";
	ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id, name) VALUES (?, ?)", {1, hostile}), KEL_SUCCESS);
	EXPECT_EQ(rows(), (Rows{std::string("1:") + hostile + ":0"}));
}

TEST_F(StatementTest, FormattedNamesAndClauses)
{
	ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id, n) VALUES (1, 10), (2, 20), (3, 30)"), KEL_SUCCESS);
	int sum = 0;
	EXPECT_EQ(kel::for_each_row(db_, kel::SqlText("SELECT %s FROM %s %s", "n", "t", "WHERE id > ?"), {1},
	              [&](kel::Statement &st) {
		              sum += st.integer(0);
		              return KEL_SUCCESS;
	              }),
	    KEL_SUCCESS);
	EXPECT_EQ(sum, 50);
}

TEST_F(StatementTest, RowLoopStopsAtTheFirstCallbackFailure)
{
	ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id) VALUES (1), (2), (3)"), KEL_SUCCESS);
	int calls = 0;
	EXPECT_EQ(kel::for_each_row(db_, "SELECT id FROM t ORDER BY id", {},
	              [&](kel::Statement &st) {
		              calls++;
		              return st.integer(0) == 2 ? KEL_E_EXISTS : KEL_SUCCESS;
	              }),
	    KEL_E_EXISTS);
	EXPECT_EQ(calls, 2);
	calls = 0;
	EXPECT_EQ(kel::for_each_row(db_, "SELECT id FROM t WHERE id > 5", {},
	              [&](kel::Statement &) { return ++calls, KEL_SUCCESS; }),
	    KEL_SUCCESS);
	EXPECT_EQ(calls, 0);
}

TEST_F(StatementTest, TransactionRollsBackUnlessCommitted)
{
	{
		kel::Transaction tx(db_);
		ASSERT_EQ(tx.begin(), KEL_SUCCESS);
		ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id) VALUES (1)"), KEL_SUCCESS);
	}
	EXPECT_EQ(rows(), Rows{});
	{
		kel::Transaction tx(db_);
		ASSERT_EQ(tx.begin(), KEL_SUCCESS);
		ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id) VALUES (2)"), KEL_SUCCESS);
		ASSERT_EQ(tx.commit(), KEL_SUCCESS);
	}
	EXPECT_EQ(rows(), (Rows{"2:-:0"}));
}

TEST_F(StatementTest, AnInnerTransactionJoinsTheOuterOne)
{
	{
		kel::Transaction outer(db_);
		ASSERT_EQ(outer.begin(), KEL_SUCCESS);
		{
			kel::Transaction inner(db_);
			ASSERT_EQ(inner.begin(), KEL_SUCCESS);
			ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id) VALUES (1)"), KEL_SUCCESS);
			ASSERT_EQ(inner.commit(), KEL_SUCCESS);
		}
		EXPECT_EQ(sqlite3_get_autocommit(db_), 0) << "the inner commit ended the outer transaction";
	}
	EXPECT_EQ(rows(), Rows{}) << "the outer rollback must undo the inner work";
}

TEST_F(StatementTest, FailedCommitRollsBack)
{
	kel::Transaction tx(db_);
	ASSERT_EQ(tx.begin(), KEL_SUCCESS);
	ASSERT_EQ(kel::exec(db_, "INSERT INTO t (id) VALUES (1)"), KEL_SUCCESS);
	kel::fault::fail_nth_statement(1, SQLITE_FULL * 256 + KEL_E_SQL);
	EXPECT_EQ(tx.commit(), SQLITE_FULL * 256 + KEL_E_SQL);
	EXPECT_EQ(sqlite3_get_autocommit(db_), 1) << "transaction left open";
	EXPECT_EQ(rows(), Rows{});
}

// Two connections to one scratch database file, as two processes would hold them.
struct TwoConnections {
	TwoConnections()
	{
		const int fd = mkstemp(path);
		if (fd != -1)
			close(fd);
		ok = fd != -1 && sqlite3_open(path, &a) == SQLITE_OK && sqlite3_open(path, &b) == SQLITE_OK;
	}
	~TwoConnections()
	{
		kel::statement_cache::detach(a);
		sqlite3_close(b);
		sqlite3_close(a);
		unlink(path);
	}
	char path[32] = "/tmp/kel-stmt-XXXXXX";
	sqlite3 *a = nullptr, *b = nullptr;
	bool ok = false;
};

TEST_F(StatementTest, BusyStoreIsReportedAtOnce)
{
	TwoConnections db;
	ASSERT_TRUE(db.ok);
	ASSERT_EQ(kel::exec(db.a, "CREATE TABLE x (v)"), KEL_SUCCESS);
	ASSERT_EQ(kel::exec(db.a, "BEGIN EXCLUSIVE TRANSACTION"), KEL_SUCCESS);
	EXPECT_EQ(kel::exec(db.b, "SELECT * FROM x"), SQLITE_BUSY * 256 + KEL_E_SQL);
}

TEST_F(StatementTest, UnknownTypeTagIsAProgrammingError)
{
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	sqlite3_stmt *stmt = nullptr;
	EXPECT_DEATH(kel_sqlite3_prepare(db_, &stmt, "SELECT ?", 0, 1, 7, 1), "file common/libkel_util");
}

}  // namespace

namespace {

int first_column(sqlite3 *db, const char *sql, kel::SqlValues values, int *type)
{
	kel::Statement st;
	EXPECT_EQ(st.prepare(db, sql, values), KEL_SUCCESS);
	EXPECT_EQ(st.step(), KEL_E_CONTINUE);
	*type = sqlite3_column_type(st.get(), 0);
	return st.integer(0);
}

}  // namespace

// Kept statements come back for the same text only, one user at a time, without the last
// user's bindings; a connection that does not keep them finalizes them as before.
TEST_F(StatementTest, KeptStatementsAreLentOnceAndComeBackClean)
{
	EXPECT_EQ(sqlite3_next_stmt(db_, nullptr), nullptr) << "not kept unless attached";
	kel::statement_cache::attach(db_);
	sqlite3_stmt *first = nullptr, *second = nullptr;
	{
		kel::Statement a, b;
		ASSERT_EQ(a.prepare(db_, "SELECT 1"), KEL_SUCCESS);
		ASSERT_EQ(b.prepare(db_, "SELECT 1"), KEL_SUCCESS);
		first = a.get();
		second = b.get();
		EXPECT_NE(first, second) << "a statement in use is never lent again";
	}
	std::optional<kel::Statement> c(std::in_place), other(std::in_place);
	ASSERT_EQ(c->prepare(db_, "SELECT 1"), KEL_SUCCESS);
	EXPECT_TRUE(c->get() == first || c->get() == second);
	ASSERT_EQ(other->prepare(db_, "SELECT 2"), KEL_SUCCESS);
	EXPECT_NE(other->get(), first);
	EXPECT_NE(other->get(), second);

	int type = 0;
	EXPECT_EQ(first_column(db_, "SELECT ?", {7}, &type), 7);
	first_column(db_, "SELECT ?", {}, &type);
	EXPECT_EQ(type, SQLITE_NULL) << "the last user's binding stayed";

	// Detached while two are lent: those are finalized by their users, the rest at once.
	kel::statement_cache::detach(db_);
	c.reset();
	other.reset();
	EXPECT_EQ(sqlite3_next_stmt(db_, nullptr), nullptr);
}

// A statement handed back in the middle of its rows must not keep the store's read lock:
// another process could then never commit.
TEST(StatementCache, AStatementLeftMidReadHoldsNoLock)
{
	TwoConnections db;
	ASSERT_TRUE(db.ok);
	ASSERT_EQ(kel::exec(db.a, "CREATE TABLE t (x)"), KEL_SUCCESS);
	ASSERT_EQ(kel::exec(db.a, "INSERT INTO t VALUES (1), (2), (3)"), KEL_SUCCESS);
	kel::statement_cache::attach(db.a);
	{
		kel::Statement st;
		ASSERT_EQ(st.prepare(db.a, "SELECT x FROM t"), KEL_SUCCESS);
		ASSERT_EQ(st.step(), KEL_E_CONTINUE);
	}
	EXPECT_EQ(kel::exec(db.b, "INSERT INTO t VALUES (4)"), KEL_SUCCESS);
}
