#include "pid_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

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
	return fstat(fd, &held) == 0 && stat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
	    held.st_ino == named.st_ino;
}

}  // namespace

int PidFile::acquire(const std::string &path, pid_t *holder)
{
	*holder = 0;
	for (;;) {
		kel::UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
		if (!fd.valid())
			return errno;
		if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
			const int err = errno;
			*holder = read_pid(fd.get());
			return err;
		}
		if (still_there(fd.get(), path)) {
			const std::string text = std::to_string(getpid()) + "\n";
			if (fchmod(fd.get(), 0644) != 0 || ftruncate(fd.get(), 0) != 0 ||
			    pwrite(fd.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
				return errno;
			fd_ = std::move(fd);
			path_ = path;
			return 0;
		}
		// Lost to a keld that was stopping: fd closes, and the new file is tried.
	}
}

PidFile::~PidFile()
{
	// The lock goes after the file, with fd_.
	if (fd_.valid())
		(void)unlink(path_.c_str());
}

}  // namespace keld
