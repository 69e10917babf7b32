// Opening and closing the store.
#include "store_handle.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "c_boundary.h"
#include "error_code.h"
#include "paths.h"
#include "pg_conn.h"
#include "schema.h"
#include "sql.h"
#include "statement_cache.h"
#include "store_setting.h"

static_assert(KEL_DB_READONLY == SQLITE_OPEN_READONLY && KEL_DB_READWRITE == SQLITE_OPEN_READWRITE,
    "the public open modes are SQLite's");

int kel::open_store(kel_dbhandle_t *handlep, int flags)
{
	return open_store_at(handlep, flags, kel::store::conninfo());
}

int kel::open_store_at(kel_dbhandle_t *handlep, int flags, const std::string &conninfo)
{
	*handlep = nullptr;
	auto *edh = static_cast<kel_dbhandle *>(std::calloc(1, sizeof(kel_dbhandle)));
	if (edh == nullptr)
		return KEL_E_NOMEM;
	edh->edh_fd = -1;
	edh->edh_mode = flags;
	pthread_mutex_init(&edh->edh_cntmutex, nullptr);

	const int rc = kel::c_boundary([&] {
		if (!conninfo.empty()) {
			std::unique_ptr<kel::pg::Conn> conn;
			int opened = kel::pg::Conn::open(conninfo, &conn);
			// A read-only handle cannot write, as a file opened read-only cannot.
			if (opened == KEL_SUCCESS && (flags & SQLITE_OPEN_READWRITE) == 0)
				opened = conn->make_read_only();
			edh->edh_pg = conn.release();
			return opened;
		}
		const std::string db = kel::paths::under_root(kel::paths::kDbFile);
		const std::string lock = kel::paths::under_root(kel::paths::kLockFile);
		if (int sqlrc = sqlite3_open_v2(db.c_str(), &edh->edh_db, flags, nullptr); sqlrc != SQLITE_OK)
			return kel::sql_error(sqlrc);
		// Never O_CREAT: a store whose lock file is gone must not be used.
		const int mode = (flags & SQLITE_OPEN_READWRITE) ? O_RDWR : O_RDONLY;
		edh->edh_fd = open(lock.c_str(), mode | O_CLOEXEC);
		if (edh->edh_fd == -1)
			return kel::last_sys_error();
		kel::statement_cache::attach(edh->edh_db);
		return KEL_SUCCESS;
	});

	if (rc != KEL_SUCCESS) {
		kel_db_close(edh);
		return rc;
	}
	*handlep = edh;
	return KEL_SUCCESS;
}

bool kel::store_exists_at(const std::string &conninfo)
{
	// On PostgreSQL, the store exists once its schema does.
	if (!conninfo.empty()) {
		std::unique_ptr<kel::pg::Conn> conn;
		bool found = false;
		return kel::pg::Conn::open(conninfo, &conn) == KEL_SUCCESS &&
		    kel::schema::has_table(conn.get(), "misc_tbl", &found) == KEL_SUCCESS && found;
	}
	const std::string db = kel::paths::under_root(kel::paths::kDbFile);
	return access(db.c_str(), F_OK) == 0;
}

extern "C" {

int kel_db_open(kel_dbhandle_t *handlep, int flags) noexcept
{
	return kel::c_boundary([&] {
		if (handlep == nullptr)
			return KEL_E_INVALID_ARGS;
		kel_dbhandle_t edh = nullptr;
		int rc = kel::open_store(&edh, flags);
		// A store that may not be written is refused here, where its opener can say which
		// store it is, rather than at its first change. While another process holds the
		// lock, the first lock of an operation makes the same check instead of waiting here.
		if (rc == KEL_SUCCESS && (flags & SQLITE_OPEN_READWRITE) != 0) {
			rc = kel::try_lock(edh);
			if (rc == KEL_SUCCESS)
				kel_unlock(edh);
			else if (rc == kel::sys_error(EAGAIN) || rc == kel::sys_error(EACCES))
				rc = KEL_SUCCESS;
			if (rc != KEL_SUCCESS) {
				kel_db_close(edh);
				edh = nullptr;
			}
		}
		*handlep = edh;
		return rc;
	});
}

void kel_db_close(kel_dbhandle_t edh) noexcept
{
	if (edh == nullptr)
		return;
	pthread_mutex_destroy(&edh->edh_cntmutex);
	delete edh->edh_pg;
	kel::statement_cache::detach(edh->edh_db);
	sqlite3_close(edh->edh_db);
	// Closing the descriptor also drops any record lock this process holds on the file.
	if (edh->edh_fd != -1)
		close(edh->edh_fd);
	std::free(edh);
}

boolean_t kel_db_exists(void) noexcept
{
	return kel::c_boundary_as(B_FALSE, B_FALSE,
	    [] { return kel::store_exists_at(kel::store::conninfo()) ? B_TRUE : B_FALSE; });
}

}  // extern "C"
