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
// they would have had to wait for the same file lock anyway.
#include <fcntl.h>

#include <cerrno>

#include "error_code.h"
#include "kel_assert.h"
#include "store_handle.h"

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

}  // namespace

int kel_lock(kel_dbhandle_t edh)
{
	KEL_ASSERT(kel::kAreaUtil, edh->edh_fd != -1);
	MutexHold hold(&edh->edh_cntmutex);
	if (edh->edh_cnt++ > 0)
		return KEL_SUCCESS;

	struct flock fl = whole_file((edh->edh_mode & SQLITE_OPEN_READWRITE) ? F_WRLCK : F_RDLCK);
	int err = 0;
	// An interrupted wait is tried again, three attempts in all.
	for (int attempt = 0; attempt < 3; attempt++) {
		if (fcntl(edh->edh_fd, F_OFD_SETLKW, &fl) == 0)
			return KEL_SUCCESS;
		err = errno;
		if (err != EINTR)
			break;
	}
	edh->edh_cnt--;
	return kel::sys_error(err);
}

void kel_unlock(kel_dbhandle_t edh)
{
	KEL_ASSERT(kel::kAreaUtil, edh->edh_fd != -1);
	MutexHold hold(&edh->edh_cntmutex);
	KEL_ASSERT(kel::kAreaUtil, edh->edh_cnt > 0);
	if (--edh->edh_cnt > 0)
		return;
	struct flock fl = whole_file(F_UNLCK);
	(void)fcntl(edh->edh_fd, F_OFD_SETLK, &fl);
}
