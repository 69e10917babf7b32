// A file descriptor closed when it goes out of scope, errno kept across the close (a
// caller reading errno after a failed call still sees that call's).
#pragma once

#include <unistd.h>

#include <cerrno>

namespace kel {

class UniqueFd {
public:
	explicit UniqueFd(int fd = -1) : fd_(fd) {}
	~UniqueFd()
	{
		const int saved = errno;
		if (fd_ != -1)
			close(fd_);
		errno = saved;
	}
	UniqueFd(const UniqueFd &) = delete;
	UniqueFd &operator=(const UniqueFd &) = delete;
	int get() const { return fd_; }

private:
	int fd_;
};

}  // namespace kel
