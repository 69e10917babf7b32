#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "libkel.h"
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
	EXPECT_EQ(sqlite3_exec(h->edh_db, "DELETE FROM misc_tbl", nullptr, nullptr, nullptr),
	    SQLITE_READONLY);
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

}  // namespace
