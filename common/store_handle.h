// The open store: its SQLite connection and the re-entrant, cross-process store lock.
#pragma once

#include <pthread.h>
#include <sqlite3.h>

#include "libkel.h"

struct kel_dbhandle {
	sqlite3 *edh_db;		// connection to the store
	int edh_mode;			// SQLite open flags, as given to kel_db_open
	int edh_fd;			// descriptor of the lock file; -1 until open
	int edh_cnt;			// lock depth: kel_lock calls not yet matched by kel_unlock
	pthread_mutex_t edh_cntmutex;	// guards edh_cnt and the file lock's state
};

// Takes the store lock: a whole-file record lock on the lock file (exclusive for a
// read-write handle, shared otherwise), waiting for other processes. Re-entrant per
// handle: only the call that raises the depth from 0 takes the file lock. Returns
// KEL_SUCCESS or an errno under KEL_E_SYSTEM, with the depth unchanged.
int kel_lock(kel_dbhandle_t handle);

// Undoes one kel_lock; the call that brings the depth back to 0 drops the file lock.
void kel_unlock(kel_dbhandle_t handle);
