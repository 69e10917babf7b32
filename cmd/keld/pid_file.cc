#include "pid_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace keld {
namespace {

pid_t read_pid(int fd)
{
	char buf[32] = {};
	const ssize_t n = pread(fd, buf, sizeof(buf) - 1, 0);
	return n > 0 ? static_cast<pid_t>(std::strtol(buf, nullptr, 10)) : 0;
}

// Whether `fd` is still the file at `path`: a keld that is stopping removes its pid
// file, and a lock on a removed file keeps nobody out.
bool still_there(int fd, const std::string &path)
{
	struct stat held, named;
	return fstat(fd, &held) == 0 && stat(path.c_str(), &named) == 0 &&
	    held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

}  // namespace

int PidFile::acquire(const std::string &path, pid_t *holder)
{
	*holder = 0;
	for (;;) {
		const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
		if (fd == -1)
			return errno;
		if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
			const int err = errno;
			*holder = read_pid(fd);
			close(fd);
			return err;
		}
		if (still_there(fd, path)) {
			const std::string text = std::to_string(getpid()) + "\n";
			if (fchmod(fd, 0644) != 0 || ftruncate(fd, 0) != 0 ||
			    pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
				const int err = errno;
				close(fd);
				return err;
			}
			fd_ = fd;
			path_ = path;
			return 0;
		}
		close(fd);	// lost to a keld that was stopping: try the new file
	}
}

PidFile::~PidFile()
{
	if (fd_ == -1)
		return;
	(void)unlink(path_.c_str());
	close(fd_);
}

}  // namespace keld
