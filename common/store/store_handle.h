// The open store: its SQLite connection and the re-entrant, cross-process store lock.
#pragma once

#include <pthread.h>

#include <sqlite3.h>
#include <string>

#include <kel/libkel.h>

namespace kel::pg {
class Conn;
}

// A store is an SQLite file, or a PostgreSQL database when the controller's service
// configuration names one ("config/store", a libpq connection string): then edh_db is
// NULL and edh_fd -1, and edh_pg holds the connection, whose advisory lock is the store
// lock.
struct kel_dbhandle {
	sqlite3 *edh_db;               // connection to the store
	int edh_mode;                  // SQLite open flags, as given to kel_db_open
	int edh_fd;                    // descriptor of the lock file; -1 until open
	int edh_cnt;                   // lock depth: kel_lock calls not yet matched by kel_unlock
	pthread_mutex_t edh_cntmutex;  // guards edh_cnt and the file lock's state
	kel::pg::Conn *edh_pg;         // connection to a PostgreSQL store, else NULL
};

// Takes the store lock: a whole-file record lock on the lock file (exclusive for a
// read-write handle, shared otherwise), waiting for other processes. Re-entrant per
// handle: only the call that raises the depth from 0 takes the file lock, and for a
// read-write handle then makes sure the store may be written (store_integrity.h).
// Returns KEL_SUCCESS; or, with the depth unchanged and no lock kept, an errno under
// KEL_E_SYSTEM, or the code kel::check_writable refuses the store with.
int kel_lock(kel_dbhandle_t handle);

// Undoes one kel_lock; the call that brings the depth back to 0 drops the file lock.
void kel_unlock(kel_dbhandle_t handle);

namespace kel {

// kel_lock without waiting: EAGAIN (or EACCES) under KEL_E_SYSTEM while another holds
// a lock that conflicts.
int try_lock(kel_dbhandle_t handle);

// Opens the store as kel_db_open does, without looking at what the files hold: for the
// one writer of a store that has no schema yet.
int open_store(kel_dbhandle_t *handlep, int flags);
// The same for the store at `conninfo` ("" for the file), whatever the setting says.
int open_store_at(kel_dbhandle_t *handlep, int flags, const std::string &conninfo);
// kel_db_exists for the store at `conninfo`.
bool store_exists_at(const std::string &conninfo);

}  // namespace kel
