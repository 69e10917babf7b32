#include <fcntl.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <kel/libkel.h>
#include "sql.h"
#include "store_handle.h"
#include "test_support.h"

namespace {

using kel::test::blocked_on_lock;
using kel::test::eventually;
using kel::test::other_process_can_lock;

class StoreLockTest : public kel::test::ScratchRoot {
protected:
	void SetUp() override
	{
		ScratchRoot::SetUp();
		// The lock file's own behaviour; the advisory lock of a database: pg_store_test.cc.
		KEL_FILE_STORE_ONLY();
		ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	}

	kel_dbhandle_t open(int flags)
	{
		kel_dbhandle_t h = nullptr;
		EXPECT_EQ(kel_db_open(&h, flags), KEL_SUCCESS);
		return h;
	}
};

// A child that takes the store lock with `flags`, says so on `ready` and holds it until
// `release` is written to or closed.
struct Holder {
	pid_t pid = -1;
	int ready = -1;
	int release = -1;

	static Holder start(int flags)
	{
		int up[2], down[2];
		EXPECT_EQ(pipe(up), 0);
		EXPECT_EQ(pipe(down), 0);
		Holder h;
		h.pid = fork();
		if (h.pid == 0) {
			close(up[0]);
			close(down[1]);
			kel_dbhandle_t db = nullptr;
			if (kel_db_open(&db, flags) != KEL_SUCCESS || kel_lock(db) != KEL_SUCCESS)
				_exit(1);
			char c = 'L';
			if (write(up[1], &c, 1) != 1)
				_exit(2);
			(void)read(down[0], &c, 1);
			kel_unlock(db);
			kel_db_close(db);
			_exit(0);
		}
		close(up[1]);
		close(down[0]);
		h.ready = up[0];
		h.release = down[1];
		return h;
	}

	// Whether the child has reported holding the lock, without waiting.
	bool holds()
	{
		int flags = fcntl(ready, F_GETFL);
		fcntl(ready, F_SETFL, flags | O_NONBLOCK);
		char c;
		bool got = read(ready, &c, 1) == 1;
		fcntl(ready, F_SETFL, flags);
		if (got)
			reported = true;
		return reported;
	}

	// Lets the child go and returns its exit status. A byte, not just closing the pipe:
	// children forked later hold copies of the pipe's write end.
	int finish()
	{
		char c = 'U';
		(void)write(release, &c, 1);
		close(release);
		close(ready);
		return kel::test::wait_exit(pid);
	}

	bool reported = false;
};

TEST_F(StoreLockTest, NestedLockTakesTheFileLockOnce)
{
	kel_dbhandle_t h = open(SQLITE_OPEN_READWRITE);
	ASSERT_EQ(kel_lock(h), KEL_SUCCESS);
	ASSERT_EQ(kel_lock(h), KEL_SUCCESS);
	EXPECT_EQ(h->edh_cnt, 2);
	EXPECT_FALSE(other_process_can_lock(lock_path(), F_RDLCK));

	kel_unlock(h);
	EXPECT_EQ(h->edh_cnt, 1);
	EXPECT_FALSE(other_process_can_lock(lock_path(), F_WRLCK));

	kel_unlock(h);
	EXPECT_EQ(h->edh_cnt, 0);
	EXPECT_TRUE(other_process_can_lock(lock_path(), F_WRLCK));
	kel_db_close(h);
}

TEST_F(StoreLockTest, ReadersShareAndAWriterWaitsForAllOfThem)
{
	Holder reader1 = Holder::start(SQLITE_OPEN_READONLY);
	Holder reader2 = Holder::start(SQLITE_OPEN_READONLY);
	ASSERT_TRUE(eventually([&] { return reader1.holds() && reader2.holds(); }));

	Holder writer = Holder::start(SQLITE_OPEN_READWRITE);
	ASSERT_TRUE(eventually([&] { return blocked_on_lock(writer.pid); }));

	EXPECT_EQ(reader1.finish(), 0);
	// One reader still holds its shared lock: the writer, woken by the release, must
	// go back to waiting.
	EXPECT_TRUE(eventually([&] { return blocked_on_lock(writer.pid); }));
	EXPECT_FALSE(writer.holds());

	EXPECT_EQ(reader2.finish(), 0);
	EXPECT_TRUE(eventually([&] { return writer.holds(); }));
	EXPECT_EQ(writer.finish(), 0);
}

TEST_F(StoreLockTest, AWriterExcludesReadersAndWriters)
{
	kel_dbhandle_t h = open(SQLITE_OPEN_READWRITE);
	ASSERT_EQ(kel_lock(h), KEL_SUCCESS);
	EXPECT_FALSE(other_process_can_lock(lock_path(), F_RDLCK));

	Holder reader = Holder::start(SQLITE_OPEN_READONLY);
	ASSERT_TRUE(eventually([&] { return blocked_on_lock(reader.pid); }));
	EXPECT_FALSE(reader.holds());
	kel_unlock(h);
	EXPECT_TRUE(eventually([&] { return reader.holds(); }));
	EXPECT_EQ(reader.finish(), 0);
	kel_db_close(h);
}

TEST_F(StoreLockTest, ReadOnlyHandleTakesASharedLock)
{
	kel_dbhandle_t h = open(SQLITE_OPEN_READONLY);
	ASSERT_EQ(kel_lock(h), KEL_SUCCESS);
	EXPECT_TRUE(other_process_can_lock(lock_path(), F_RDLCK));
	EXPECT_FALSE(other_process_can_lock(lock_path(), F_WRLCK));
	kel_unlock(h);
	kel_db_close(h);
}

// Threads of one process (a daemon serving clients) each with its own handle exclude
// each other, and closing one handle leaves another's lock alone.
TEST_F(StoreLockTest, HandlesOfOneProcessExcludeEachOther)
{
	kel_dbhandle_t a = open(SQLITE_OPEN_READWRITE);
	ASSERT_EQ(kel_lock(a), KEL_SUCCESS);
	kel_db_close(open(SQLITE_OPEN_READONLY));
	EXPECT_FALSE(other_process_can_lock(lock_path(), F_RDLCK));

	std::atomic<bool> in{false};
	std::thread other([&] {
		kel_dbhandle_t b = open(SQLITE_OPEN_READONLY);
		EXPECT_EQ(kel_lock(b), KEL_SUCCESS);
		in = true;
		kel_unlock(b);
		kel_db_close(b);
	});
	ASSERT_TRUE(eventually([&] { return blocked_on_lock(getpid()); }));
	EXPECT_FALSE(in);
	kel_unlock(a);
	other.join();
	EXPECT_TRUE(in);
	kel_db_close(a);
}

TEST_F(StoreLockTest, ASecondThreadWaitsUntilTheFileLockIsHeld)
{
	Holder other = Holder::start(SQLITE_OPEN_READWRITE);
	ASSERT_TRUE(eventually([&] { return other.holds(); }));

	kel_dbhandle_t h = open(SQLITE_OPEN_READWRITE);
	std::atomic<bool> first_in{false}, second_in{false};
	std::thread first([&] {
		EXPECT_EQ(kel_lock(h), KEL_SUCCESS);
		first_in = true;
	});
	ASSERT_TRUE(eventually([&] { return blocked_on_lock(getpid()); }));
	std::thread second([&] {
		EXPECT_EQ(kel_lock(h), KEL_SUCCESS);
		second_in = true;
	});
	// The second thread shares the handle but must not get in while the file lock
	// belongs to another process.
	usleep(100000);
	EXPECT_FALSE(first_in);
	EXPECT_FALSE(second_in);

	EXPECT_EQ(other.finish(), 0);
	first.join();
	second.join();
	EXPECT_TRUE(first_in && second_in);
	EXPECT_EQ(h->edh_cnt, 2);
	EXPECT_FALSE(other_process_can_lock(lock_path(), F_RDLCK));
	kel_unlock(h);
	kel_unlock(h);
	EXPECT_TRUE(other_process_can_lock(lock_path(), F_WRLCK));
	kel_db_close(h);
}

TEST_F(StoreLockTest, GuardReleasesOnScopeExit)
{
	kel_dbhandle_t h = open(SQLITE_OPEN_READWRITE);
	{
		kel::StoreLock outer(h);
		ASSERT_EQ(outer.status(), KEL_SUCCESS);
		{
			kel::StoreLock inner(h);
			EXPECT_EQ(h->edh_cnt, 2);
		}
		EXPECT_FALSE(other_process_can_lock(lock_path(), F_WRLCK));
	}
	EXPECT_EQ(h->edh_cnt, 0);
	EXPECT_TRUE(other_process_can_lock(lock_path(), F_WRLCK));
	kel_db_close(h);
}

// A write scope's transaction is rolled back, unless committed, while the lock is still
// held; the lock goes after it.
TEST_F(StoreLockTest, WriteScopeRollsBackUnlessCommittedThenUnlocks)
{
	kel_dbhandle_t h = open(SQLITE_OPEN_READWRITE);
	for (bool commit : {false, true}) {
		{
			kel::WriteScope write(h);
			ASSERT_EQ(write.begin(), KEL_SUCCESS);
			ASSERT_EQ(kel::exec(h, "INSERT INTO misc_tbl (misc_name, misc_value) VALUES (?, ?)",
			              {"probe", commit ? "kept" : "dropped"}),
			    KEL_SUCCESS);
			if (commit) {
				ASSERT_EQ(write.commit(), KEL_SUCCESS);
			}
			EXPECT_FALSE(other_process_can_lock(lock_path(), F_WRLCK));
		}
		EXPECT_EQ(h->edh_cnt, 0);
		EXPECT_TRUE(other_process_can_lock(lock_path(), F_WRLCK));
		EXPECT_NE(sqlite3_get_autocommit(h->edh_db), 0);
		int rows = 0;
		ASSERT_EQ(kel::for_each_row(h, "SELECT misc_value FROM misc_tbl WHERE misc_name = 'probe'", {},
		              [&](kel::Statement &st) {
			              EXPECT_STREQ(st.text(0), "kept");
			              rows++;
			              return KEL_SUCCESS;
		              }),
		    KEL_SUCCESS);
		EXPECT_EQ(rows, commit ? 1 : 0);
	}
	kel_db_close(h);
}

TEST_F(StoreLockTest, FailedLockLeavesTheDepthAlone)
{
	kel_dbhandle_t h = open(SQLITE_OPEN_READWRITE);
	// A read-write handle on a descriptor opened read-only cannot get a write lock.
	int real_fd = h->edh_fd;
	h->edh_fd = ::open(lock_path().c_str(), O_RDONLY);
	EXPECT_EQ(kel_lock(h), EBADF * 256 + KEL_E_SYSTEM);
	EXPECT_EQ(h->edh_cnt, 0);
	kel::StoreLock guard(h);
	EXPECT_EQ(guard.status(), EBADF * 256 + KEL_E_SYSTEM);
	// A write scope without its lock begins nothing and answers the lock's failure.
	{
		kel::WriteScope write(h);
		EXPECT_EQ(write.begin(), EBADF * 256 + KEL_E_SYSTEM);
		EXPECT_NE(sqlite3_get_autocommit(h->edh_db), 0);
	}
	EXPECT_EQ(h->edh_cnt, 0);
	::close(h->edh_fd);
	h->edh_fd = real_fd;
	kel_db_close(h);
}

TEST_F(StoreLockTest, UnbalancedUnlockIsAProgrammingError)
{
	kel_dbhandle_t h = open(SQLITE_OPEN_READWRITE);
	EXPECT_DEATH(kel_unlock(h), "edh->edh_cnt > 0, file common/libkel_util");
	const int fd = h->edh_fd;
	h->edh_fd = -1;
	EXPECT_DEATH(kel_lock(h), "edh->edh_fd != -1, file common/libkel_util");
	EXPECT_DEATH(kel_unlock(h), "edh->edh_fd != -1, file common/libkel_util");
	h->edh_fd = fd;
	kel_db_close(h);
}

}  // namespace
