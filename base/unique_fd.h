// A file descriptor closed when it goes out of scope, errno kept across the close (a
// caller reading errno after a failed call still sees that call's). It moves, and gives
// its descriptor up with release() to whatever closes it from then on (a connection, a
// caller's out-parameter).
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kel {

class UniqueFd {
public:
	explicit UniqueFd(int fd = -1) : fd_(fd) {}
	~UniqueFd() { reset(); }
	UniqueFd(const UniqueFd &) = delete;
	UniqueFd &operator=(const UniqueFd &) = delete;
	UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
	UniqueFd &operator=(UniqueFd &&other) noexcept
	{
		if (this != &other)
			reset(other.release());
		return *this;
	}

	int get() const { return fd_; }
	bool valid() const { return fd_ != -1; }
	// The descriptor, no longer closed here.
	int release() { return std::exchange(fd_, -1); }
	// Closes the descriptor held, if any, and holds `fd` instead.
	void reset(int fd = -1)
	{
		const int old = std::exchange(fd_, fd);
		if (old != -1) {
			const int saved = errno;
			close(old);
			errno = saved;
		}
	}

private:
	int fd_;
};

}  // namespace kel
