#include "store_pool.h"

#include <sys/stat.h>

#include <mutex>
#include <utility>
#include <vector>

#include "paths.h"

namespace kelcntl {
namespace {

// Enough for the calls a busy host makes at once; a handle beyond it is closed after its
// call, so a burst of clients leaves no more than this many open.
constexpr size_t kKeptPerMode = 8;

struct Kept {
	kel::StoreHandle h;
	std::string store;
};

struct Pool {
	std::mutex mutex;
	std::vector<Kept> read_only, read_write;

	std::vector<Kept> &of(int mode) { return (mode & KEL_DB_READWRITE) != 0 ? read_write : read_only; }
};

Pool &pool()
{
	static Pool *p = new Pool;  // never destroyed: detached threads may still give back
	return *p;
}

// The store as it is now: the database the controller's setting names, or the store file
// by its device and inode; "" when there is neither. A database's handle stays good when
// its server fails over: it connects again at its next lock.
std::string identity()
{
	char conninfo[4096];
	if (kel_get_controller_togprop("store", conninfo, sizeof(conninfo)) == KEL_SUCCESS && conninfo[0] != '\0')
		return std::string("database ") + conninfo;
	struct stat st;
	if (stat(kel::paths::under_root(kel::paths::kDbFile).c_str(), &st) != 0)
		return "";
	return "file " + std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

}  // namespace

PooledStore::PooledStore(int mode) : mode_(mode), store_(identity()), rc_(KEL_SUCCESS)
{
	std::vector<Kept> stale;
	{
		std::lock_guard<std::mutex> hold(pool().mutex);
		std::vector<Kept> &kept = pool().of(mode);
		while (!kept.empty() && h_ == nullptr) {
			Kept k = std::move(kept.back());
			kept.pop_back();
			if (k.store == store_ && !store_.empty())
				h_ = std::move(k.h);
			else
				stale.push_back(std::move(k));
		}
	}
	stale.clear();  // closed outside the pool's lock, before a new one opens
	// Identity is taken before the open: a store replaced in between is seen as replaced
	// at the next call, and only costs a reopen then.
	if (h_ == nullptr)
		rc_ = kel::db_open(&h_, mode);
}

PooledStore::~PooledStore()
{
	if (h_ == nullptr)
		return;
	std::lock_guard<std::mutex> hold(pool().mutex);
	std::vector<Kept> &kept = pool().of(mode_);
	if (kept.size() < kKeptPerMode)
		kept.push_back({std::move(h_), std::move(store_)});
	// else h_ closes it, after the pool's lock is let go
}

}  // namespace kelcntl
