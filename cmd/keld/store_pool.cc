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
	unsigned long dev, ino;
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

// The store file as it is now: (0, 0) when there is none.
void identity(unsigned long *dev, unsigned long *ino)
{
	struct stat st;
	const bool there = stat(kel::paths::under_root(kel::paths::kDbFile).c_str(), &st) == 0;
	*dev = there ? st.st_dev : 0;
	*ino = there ? st.st_ino : 0;
}

}  // namespace

PooledStore::PooledStore(int mode) : mode_(mode), rc_(KEL_SUCCESS)
{
	identity(&dev_, &ino_);
	std::vector<Kept> stale;
	{
		std::lock_guard<std::mutex> hold(pool().mutex);
		std::vector<Kept> &kept = pool().of(mode);
		while (!kept.empty() && h_ == nullptr) {
			Kept k = std::move(kept.back());
			kept.pop_back();
			if (k.dev == dev_ && k.ino == ino_ && dev_ != 0)
				h_ = std::move(k.h);
			else
				stale.push_back(std::move(k));
		}
	}
	stale.clear();  // closed outside the pool's lock, before a new one opens
	// Identity is taken before the open: a file replaced in between is seen as replaced
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
		kept.push_back({std::move(h_), dev_, ino_});
	// else h_ closes it, after the pool's lock is let go
}

}  // namespace kelcntl
