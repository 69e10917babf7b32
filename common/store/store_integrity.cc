// How the library knows a store is sound without reading all of it each time. The lock
// file is the store's own: nothing but the library opens it for writing, and it holds no
// data. Whenever the store is known sound (after a whole check, and before a write handle
// drops the lock, under which only the library wrote), an extended attribute of the lock
// file records the database file as it then is: its inode, size and modification time.
// A database file that no longer matches was replaced or written by something else
// since, or by a library process that died before it could say so: the next write handle
// checks it whole. Where the attribute cannot be kept (a file system without user
// attributes), every write handle checks.
//
// A change made by another program within the same clock tick as the library's last
// write, and that keeps the file's size, keeps its time too on a kernel whose file times
// are coarse; newer kernels give a file whose time was just read a finer one on its next
// change.
#include "store_integrity.h"
#include "c_boundary.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "error_code.h"
#include "schema.h"
#include "sql.h"
#include "store_handle.h"

namespace {

constexpr const char kSoundAttr[] = "user.kel.sound";

// The database file as the attribute records it: its device, inode, size and time.
struct Identity {
	char text[96];
	size_t len = 0;  // 0: the file could not be looked at
};

Identity db_identity(kel_dbhandle_t h)
{
	Identity id;
	const char *path = sqlite3_db_filename(h->edh_db, "main");
	struct stat st;
	if (path == nullptr || *path == '\0' || stat(path, &st) != 0)
		return id;
	const int n = std::snprintf(id.text, sizeof(id.text), "%llu:%llu:%lld:%lld.%09ld",
	    static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino),
	    static_cast<long long>(st.st_size), static_cast<long long>(st.st_mtim.tv_sec), st.st_mtim.tv_nsec);
	id.len = n > 0 && static_cast<size_t>(n) < sizeof(id.text) ? static_cast<size_t>(n) : 0;
	return id;
}

// Whether the attribute records `id`.
bool recorded(kel_dbhandle_t h, const Identity &id)
{
	char text[sizeof(id.text)];
	const ssize_t n = fgetxattr(h->edh_fd, kSoundAttr, text, sizeof(text));
	return id.len != 0 && n == static_cast<ssize_t>(id.len) && std::memcmp(text, id.text, id.len) == 0;
}

void record(kel_dbhandle_t h, const Identity &id)
{
	if (id.len != 0)
		(void)fsetxattr(h->edh_fd, kSoundAttr, id.text, id.len, 0);
}

// Every page and record of the file read back as SQLite wrote them: SQLite's quick
// check (the structure, without comparing each index with its table).
int structure(sqlite3 *db)
{
	int rows = 0;
	bool ok = false;
	const int rc = kel::for_each_row(db, "PRAGMA quick_check", {}, [&](kel::Statement &st) {
		ok = ++rows == 1 && st.text(0) != nullptr && std::strcmp(st.text(0), "ok") == 0;
		return KEL_SUCCESS;
	});
	if (rc != KEL_SUCCESS)
		return rc;
	return ok ? KEL_SUCCESS : kel::sql_error(SQLITE_CORRUPT);
}

}  // namespace

namespace kel {

int check_writable(kel_dbhandle_t h) noexcept
{
	// A database server keeps its own pages sound; what is left to know is whether this
	// library may write the schema it finds there.
	if (h->edh_pg != nullptr)
		return kel::c_boundary([&] {
			int version = 0;
			int rc = schema::read_version(h, &version);
			return rc == KEL_SUCCESS && version > schema::kVersion ? KEL_E_DB_VERSION : rc;
		});
	// Looked at before the check: a change made meanwhile by another program is not taken
	// for checked.
	const Identity id = db_identity(h);
	if (recorded(h, id))
		return KEL_SUCCESS;
	return kel::c_boundary([&] {
		int rc = structure(h->edh_db);
		int version = 0;
		if (rc == KEL_SUCCESS)
			rc = schema::read_version(h, &version);
		if (rc == KEL_SUCCESS && version > schema::kVersion)
			rc = KEL_E_DB_VERSION;
		if (rc == KEL_SUCCESS)
			record(h, id);
		return rc;
	});
}

void note_sound(kel_dbhandle_t h) noexcept
{
	if (h->edh_pg != nullptr)
		return;
	const Identity id = db_identity(h);
	if (!recorded(h, id))
		record(h, id);
}

}  // namespace kel
