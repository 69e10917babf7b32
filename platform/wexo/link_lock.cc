#include "link_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <mutex>

#include "paths.h"
#include "unique_fd.h"

namespace wexo {

// One per name a thread of this process holds or waits for. The file lock is per open
// file, so a second open of the same file in this process would wait for the first: the
// process takes the file lock once, and its threads take turns on the mutex.
struct LinkLock::Entry {
	std::recursive_mutex turn;
	int depth = 0;     // how deep the holding thread is in it, under `turn`
	kel::UniqueFd fd;  // the locked file while depth > 0
	int users = 0;     // threads holding or waiting, under `entries_mutex`
};

namespace {

std::mutex entries_mutex;
std::map<std::string, std::shared_ptr<LinkLock::Entry>> entries;

// Opens and locks the file of `name`; -1 with errno on failure.
int lock_file(const std::string &name)
{
	const std::string path = kel::paths::under_root(kel::paths::kLinksDir) + "/" + name + ".lock";
	if (!kel::paths::make_dirs(std::filesystem::path(path).parent_path(), 0755))
		return -1;
	kel::UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
	if (!fd.valid())
		return -1;
	int rc;
	while ((rc = flock(fd.get(), LOCK_EX)) == -1 && errno == EINTR) {
	}
	return rc == -1 ? -1 : fd.release();
}

}  // namespace

LinkLock::LinkLock(const std::string &name) : name_(name)
{
	{
		std::lock_guard<std::mutex> hold(entries_mutex);
		std::shared_ptr<Entry> &e = entries[name];
		if (e == nullptr)
			e = std::make_shared<Entry>();
		e->users++;
		entry_ = e;
	}
	entry_->turn.lock();
	if (entry_->depth == 0) {
		entry_->fd.reset(lock_file(name));
		if (!entry_->fd.valid()) {
			entry_->turn.unlock();
			return;
		}
	}
	entry_->depth++;
	held_ = true;
}

LinkLock::~LinkLock()
{
	if (held_) {
		// Closing the descriptor releases the file lock; the file stays for the next holder.
		if (--entry_->depth == 0)
			entry_->fd.reset();
		entry_->turn.unlock();
	}
	std::lock_guard<std::mutex> hold(entries_mutex);
	if (--entry_->users == 0)
		entries.erase(name_);
}

}  // namespace wexo
