// The store lock: a depth count per handle over a record lock on the handle's own open
// of the lock file. The record lock is an open-file-description lock, not a classic
// per-process one: a daemon serves clients on threads, each with its own handle, and
// classic locks would let those threads all "hold" the lock at once (they belong to the
// process), and closing any handle would drop the lock another thread still holds.
//
// The handle's mutex is held while the depth moves between 0 and 1, across the
// record-lock call itself. So a second thread sharing the handle cannot see depth 1 (and
// walk into the store) before the file lock is really granted, and a late release from
// one thread cannot drop a file lock that another thread has just taken. While the first
// locker waits for another process, other threads of this handle wait on the mutex;
// they would have had to wait for the same file lock anyway. The same holds while a
// handle that writes checks the store it has just locked (store_integrity.h).
#include <fcntl.h>

#include <cerrno>

#include "error_code.h"
#include "kel_assert.h"
#include "pg_conn.h"
#include "store_handle.h"
#include "store_integrity.h"

namespace {

class MutexHold {
public:
	explicit MutexHold(pthread_mutex_t *m) : m_(m) { pthread_mutex_lock(m_); }
	~MutexHold() { pthread_mutex_unlock(m_); }
	MutexHold(const MutexHold &) = delete;
	MutexHold &operator=(const MutexHold &) = delete;

private:
	pthread_mutex_t *m_;
};

struct flock whole_file(short type)
{
	struct flock fl {};
	fl.l_type = type;
	fl.l_whence = SEEK_SET;
	fl.l_start = 0;
	fl.l_len = 0;
	return fl;
}

bool writes(kel_dbhandle_t edh)
{
	return (edh->edh_mode & SQLITE_OPEN_READWRITE) != 0;
}

// The store lock of a store on PostgreSQL: the database's advisory lock, so that every
// controller sharing the database is serialised as processes sharing a file are. A
// lock that is not had at once (without waiting) reads as the file lock's EAGAIN.
int lock_database(kel_dbhandle_t edh, bool wait)
{
	MutexHold hold(&edh->edh_cntmutex);
	if (edh->edh_cnt++ > 0)
		return KEL_SUCCESS;
	bool got = false;
	int rc = edh->edh_pg->lock(writes(edh), wait, &got);
	if (rc == KEL_SUCCESS && !got)
		rc = kel::sys_error(EAGAIN);
	if (rc == KEL_SUCCESS && writes(edh) && (rc = kel::check_writable(edh)) != KEL_SUCCESS)
		edh->edh_pg->unlock(true);
	if (rc != KEL_SUCCESS)
		edh->edh_cnt--;
	return rc;
}

// kel_lock, waiting for other processes (`wait`) or not.
int lock(kel_dbhandle_t edh, bool wait)
{
	if (edh->edh_pg != nullptr)
		return lock_database(edh, wait);
	KEL_ASSERT(kel::kAreaUtil, edh->edh_fd != -1);
	MutexHold hold(&edh->edh_cntmutex);
	if (edh->edh_cnt++ > 0)
		return KEL_SUCCESS;

	struct flock fl = whole_file(writes(edh) ? F_WRLCK : F_RDLCK);
	int err = 0;
	// An interrupted wait is tried again, three attempts in all.
	for (int attempt = 0; attempt < 3; attempt++) {
		if (fcntl(edh->edh_fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &fl) == 0) {
			err = 0;
			break;
		}
		err = errno;
		if (err != EINTR)
			break;
	}
	int rc = err != 0 ? kel::sys_error(err) : KEL_SUCCESS;
	// A handle that writes does not go in before the store is known fit to be written.
	if (rc == KEL_SUCCESS && writes(edh) && (rc = kel::check_writable(edh)) != KEL_SUCCESS) {
		struct flock un = whole_file(F_UNLCK);
		(void)fcntl(edh->edh_fd, F_OFD_SETLK, &un);
	}
	if (rc != KEL_SUCCESS)
		edh->edh_cnt--;
	return rc;
}

}  // namespace

int kel_lock(kel_dbhandle_t edh)
{
	return lock(edh, true);
}

int kel::try_lock(kel_dbhandle_t edh)
{
	return lock(edh, false);
}

void kel_unlock(kel_dbhandle_t edh)
{
	KEL_ASSERT(kel::kAreaUtil, edh->edh_pg != nullptr || edh->edh_fd != -1);
	MutexHold hold(&edh->edh_cntmutex);
	KEL_ASSERT(kel::kAreaUtil, edh->edh_cnt > 0);
	if (--edh->edh_cnt > 0)
		return;
	if (edh->edh_pg != nullptr) {
		edh->edh_pg->unlock(writes(edh));
		return;
	}
	if (writes(edh))
		kel::note_sound(edh);
	struct flock fl = whole_file(F_UNLCK);
	(void)fcntl(edh->edh_fd, F_OFD_SETLK, &fl);
}
