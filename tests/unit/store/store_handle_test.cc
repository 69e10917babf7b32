#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include <kel/libkel.h>
#include "fault.h"
#include "sql.h"
#include "store_handle.h"
#include "test_support.h"

namespace {

using StoreHandle = kel::test::ScratchRoot;

kel_dbhandle_t sentinel()
{
	return reinterpret_cast<kel_dbhandle_t>(0x1);
}

TEST_F(StoreHandle, MissingDatabaseFailsAndLeavesTheHandleNull)
{
	kel_dbhandle_t h = sentinel();
	EXPECT_EQ(kel_db_open(&h, SQLITE_OPEN_READWRITE), SQLITE_CANTOPEN * 256 + KEL_E_SQL);
	EXPECT_EQ(h, nullptr);
	h = sentinel();
	EXPECT_EQ(kel_db_open(&h, SQLITE_OPEN_READONLY), SQLITE_CANTOPEN * 256 + KEL_E_SQL);
	EXPECT_EQ(h, nullptr);
	EXPECT_FALSE(kel_db_exists());
	// Opening must not have made the file as a side effect.
	EXPECT_NE(access(db_path().c_str(), F_OK), 0);
}

TEST_F(StoreHandle, MissingLockFileFailsEvenWithTheDatabasePresent)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	ASSERT_EQ(unlink(lock_path().c_str()), 0);
	for (int flags : {SQLITE_OPEN_READONLY, SQLITE_OPEN_READWRITE}) {
		kel_dbhandle_t h = sentinel();
		EXPECT_EQ(kel_db_open(&h, flags), ENOENT * 256 + KEL_E_SYSTEM);
		EXPECT_EQ(h, nullptr);
	}
	// The lock file is never re-created by opening.
	EXPECT_NE(access(lock_path().c_str(), F_OK), 0);
}

TEST_F(StoreHandle, OpenKeepsTheFlagsAndAnUnlockedLockDescriptor)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	EXPECT_TRUE(kel_db_exists());
	for (int flags : {SQLITE_OPEN_READONLY, SQLITE_OPEN_READWRITE}) {
		kel_dbhandle_t h = nullptr;
		ASSERT_EQ(kel_db_open(&h, flags), KEL_SUCCESS);
		ASSERT_NE(h, nullptr);
		EXPECT_EQ(h->edh_mode, flags);
		EXPECT_NE(h->edh_fd, -1);
		EXPECT_EQ(h->edh_cnt, 0);
		EXPECT_NE(h->edh_db, nullptr);
		kel_db_close(h);
	}
	kel_db_close(nullptr);
}

TEST_F(StoreHandle, ReadOnlyHandleCannotWrite)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	kel_dbhandle_t h = nullptr;
	ASSERT_EQ(kel_db_open(&h, SQLITE_OPEN_READONLY), KEL_SUCCESS);
	EXPECT_EQ(sqlite3_exec(h->edh_db, "DELETE FROM misc_tbl", nullptr, nullptr, nullptr), SQLITE_READONLY);
	kel_db_close(h);
}

TEST_F(StoreHandle, RootWithTrailingSlashesNamesTheSameStore)
{
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	std::string root = getenv("KEL_ROOT");
	setenv("KEL_ROOT", (root + "//").c_str(), 1);
	EXPECT_TRUE(kel_db_exists());
	setenv("KEL_ROOT", (root + "/elsewhere").c_str(), 1);
	EXPECT_FALSE(kel_db_exists());
	setenv("KEL_ROOT", root.c_str(), 1);
}

// Stores that may not be written, made from a sound one with a kel in it.
class DamagedStore : public kel::test::ScratchRoot {
protected:
	void SetUp() override
	{
		ScratchRoot::SetUp();
		fresh();
	}
	// A new sound store in place of the one there.
	void fresh()
	{
		(void)unlink(db_path().c_str());
		(void)unlink(lock_path().c_str());
		ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
		kel_dbhandle_t h = nullptr;
		ASSERT_EQ(kel_db_open(&h, KEL_DB_READWRITE), KEL_SUCCESS);
		EXPECT_EQ(create_kel(h, "web"), KEL_SUCCESS);
		kel_db_close(h);
	}
	void TearDown() override
	{
		kel::fault::disarm();
		ScratchRoot::TearDown();
	}

	// Changes the store as another program would: by SQL, or by overwriting 16 bytes of
	// the file at `offset`. The file's time is then moved past the library's last write,
	// as a change made any later than within the same clock tick would move it.
	void outside_sql(const char *sql)
	{
		sqlite3 *db = nullptr;
		ASSERT_EQ(sqlite3_open(db_path().c_str(), &db), SQLITE_OK);
		EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql;
		sqlite3_close(db);
		later();
	}
	void outside_bytes(off_t offset)
	{
		const int fd = ::open(db_path().c_str(), O_WRONLY);
		ASSERT_NE(fd, -1);
		const std::string junk(16, '\xff');
		EXPECT_EQ(pwrite(fd, junk.data(), junk.size(), offset), 16);
		close(fd);
		later();
	}
	void later()
	{
		struct stat st;
		ASSERT_EQ(stat(db_path().c_str(), &st), 0);
		const struct timespec times[2] = {{0, UTIME_OMIT}, {st.st_mtim.tv_sec + 1, st.st_mtim.tv_nsec}};
		ASSERT_EQ(utimensat(AT_FDCWD, db_path().c_str(), times, 0), 0);
	}

	// Where in the file the root page of `name` (a table or an index) begins.
	off_t page_of(const char *name)
	{
		sqlite3 *db = nullptr;
		EXPECT_EQ(sqlite3_open(db_path().c_str(), &db), SQLITE_OK);
		off_t at = 0;
		(void)kel::for_each_row(db,
		    "SELECT (rootpage - 1) * (SELECT page_size FROM pragma_page_size) FROM sqlite_master WHERE name = ?",
		    {name}, [&](kel::Statement &st) {
			    at = sqlite3_column_int64(st.get(), 0);
			    return KEL_SUCCESS;
		    });
		sqlite3_close(db);
		EXPECT_GT(at, 0);
		return at;
	}

	std::string bytes()
	{
		std::ifstream in(db_path(), std::ios::binary);
		return std::string(std::istreambuf_iterator<char>(in), {});
	}

	static int create_kel(kel_dbhandle_t h, const char *name)
	{
		kel_t *k = nullptr;
		const int rc = kel_db_create_kel(h, nullptr, name, "l2-type=flat", 0, &k);
		kel_free_kel(k);
		return rc;
	}
};

const int kCorrupt = SQLITE_CORRUPT * 256 + KEL_E_SQL;
const int kNotAStore = SQLITE_NOTADB * 256 + KEL_E_SQL;

// Each is refused to every writer, again and again, and left exactly as it is; a reader
// may still look at it.
TEST_F(DamagedStore, IsRefusedToWritersAndLeftAsItIs)
{
	const struct {
		const char *what;
		std::function<void()> damage;
		int rc;
	} cases[] = {
	    {"a newer schema", [&] { outside_sql("UPDATE misc_tbl SET misc_value = '99'"); }, KEL_E_DB_VERSION},
	    {"no version", [&] { outside_sql("DELETE FROM misc_tbl WHERE misc_name = 'db-version'"); }, kCorrupt},
	    {"a version that is no number", [&] { outside_sql("UPDATE misc_tbl SET misc_value = 'three'"); }, kCorrupt},
	    {"no version table", [&] { outside_sql("DROP TABLE misc_tbl"); }, kNotAStore},
	    {"a page in the middle overwritten", [&] { outside_bytes(page_of("kel_name_idx")); }, kCorrupt},
	    {"a table's page overwritten", [&] { outside_bytes(page_of("kel_tbl")); }, kCorrupt},
	    {"the file's header overwritten", [&] { outside_bytes(0); }, kNotAStore},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		fresh();
		c.damage();
		const std::string before = bytes();
		for (int attempt = 0; attempt < 2; attempt++) {
			kel_dbhandle_t h = sentinel();
			EXPECT_EQ(kel_db_open(&h, KEL_DB_READWRITE), c.rc);
			EXPECT_EQ(h, nullptr);
		}
		EXPECT_EQ(kel_db_upgrade(), c.rc);
		EXPECT_TRUE(bytes() == before) << "the store was written";
		kel_dbhandle_t h = nullptr;
		EXPECT_EQ(kel_db_open(&h, KEL_DB_READONLY), KEL_SUCCESS);
		kel_db_close(h);
	}
}

// Damage done while a writer has the store open is found at its next change, even where
// the change itself would not read the damaged page.
TEST_F(DamagedStore, IsRefusedThroughAHandleOpenedBefore)
{
	kel_dbhandle_t h = nullptr;
	ASSERT_EQ(kel_db_open(&h, KEL_DB_READWRITE), KEL_SUCCESS);
	outside_bytes(page_of("vport_mackey_idx"));
	const std::string before = bytes();
	EXPECT_EQ(create_kel(h, "db"), kCorrupt);
	EXPECT_EQ(h->edh_cnt, 0);
	EXPECT_TRUE(bytes() == before) << "the store was written";
	kel_db_close(h);
}

// While another process holds the lock, opening does not wait to check: the first
// change does, and is refused.
TEST_F(DamagedStore, IsRefusedAtTheFirstChangeWhenOpenedUnderAnotherLock)
{
	outside_sql("UPDATE misc_tbl SET misc_value = '99'");
	const int other = ::open(lock_path().c_str(), O_RDWR);
	ASSERT_NE(other, -1);
	struct flock fl {};
	fl.l_type = F_WRLCK;
	fl.l_whence = SEEK_SET;
	ASSERT_EQ(fcntl(other, F_OFD_SETLK, &fl), 0);
	kel_dbhandle_t h = nullptr;
	ASSERT_EQ(kel_db_open(&h, KEL_DB_READWRITE), KEL_SUCCESS);
	close(other);
	const std::string before = bytes();
	EXPECT_EQ(create_kel(h, "db"), KEL_E_DB_VERSION);
	EXPECT_TRUE(bytes() == before) << "the store was written";
	kel_db_close(h);
}

// The whole check runs once after a change made outside the library, not at every open:
// an open that runs no statement leaves an armed fault armed.
TEST_F(DamagedStore, IsCheckedWholeOnlyAfterAChangeFromOutside)
{
	const int fault = SQLITE_IOERR * 256 + KEL_E_SQL;
	auto open_with_fault = [&] {
		kel::fault::fail_nth_statement(1, fault);
		kel_dbhandle_t h = nullptr;
		const int rc = kel_db_open(&h, KEL_DB_READWRITE);
		kel_db_close(h);
		const bool checked = !kel::fault::armed();
		kel::fault::disarm();
		return std::make_pair(rc, checked);
	};
	// Set up wrote it through the library: known sound.
	EXPECT_EQ(open_with_fault(), std::make_pair(KEL_SUCCESS, false));
	outside_sql("UPDATE ctrl_tbl SET ctrl_pval = '100-199' WHERE ctrl_pname = 'vlan-range'");
	EXPECT_EQ(open_with_fault(), std::make_pair(fault, true));
	EXPECT_EQ(open_with_fault(), std::make_pair(fault, true)) << "a failed check proves nothing";
	kel_dbhandle_t h = nullptr;
	ASSERT_EQ(kel_db_open(&h, KEL_DB_READWRITE), KEL_SUCCESS);
	EXPECT_EQ(open_with_fault(), std::make_pair(KEL_SUCCESS, false));
	// What the library writes is known sound as well.
	ASSERT_EQ(create_kel(h, "db"), KEL_SUCCESS);
	kel_db_close(h);
	EXPECT_EQ(open_with_fault(), std::make_pair(KEL_SUCCESS, false));
	// A file put in the store's place is another store.
	const std::string copy = bytes();
	ASSERT_EQ(unlink(db_path().c_str()), 0);
	std::ofstream(db_path(), std::ios::binary) << copy;
	EXPECT_EQ(open_with_fault(), std::make_pair(fault, true));
}

}  // namespace
