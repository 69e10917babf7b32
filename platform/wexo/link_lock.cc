#include "link_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "paths.h"

namespace wexo {

LinkLock::LinkLock(const std::string &link)
{
	const std::string dir = kel::paths::under_root(kel::paths::kLinksDir);
	if (!kel::paths::make_dirs(dir, 0755))
		return;
	fd_ = open((dir + "/" + link + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
	if (fd_ == -1)
		return;
	int rc;
	while ((rc = flock(fd_, LOCK_EX)) == -1 && errno == EINTR) {
	}
	if (rc == -1) {
		close(fd_);
		fd_ = -1;
	}
}

LinkLock::~LinkLock()
{
	// Closing the descriptor releases the lock; the file stays for the next holder.
	if (fd_ != -1)
		close(fd_);
}

}  // namespace wexo
