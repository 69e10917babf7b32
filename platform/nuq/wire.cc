#include "wire.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace nuq {

ReadResult LineReader::read(std::string *line, std::chrono::milliseconds timeout)
{
	const auto deadline = std::chrono::steady_clock::now() + timeout;
	for (;;) {
		const size_t nl = buffered_.find('\n');
		if (nl != std::string::npos && nl > kMaxLine)
			return ReadResult::TooLong;
		if (nl != std::string::npos) {
			*line = buffered_.substr(0, nl);
			buffered_.erase(0, nl + 1);
			return ReadResult::Line;
		}
		if (buffered_.size() > kMaxLine)
			return ReadResult::TooLong;
		int wait = -1;
		if (timeout.count() >= 0) {
			const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
			    deadline - std::chrono::steady_clock::now());
			if (left.count() <= 0)
				return ReadResult::Timeout;
			wait = static_cast<int>(left.count());
		}
		struct pollfd pfd = {fd_, POLLIN, 0};
		const int ready = poll(&pfd, 1, wait);
		if (ready < 0 && errno == EINTR)
			continue;
		if (ready < 0)
			return ReadResult::Error;
		if (ready == 0)
			return ReadResult::Timeout;
		char buf[16384];
		const ssize_t n = ::read(fd_, buf, sizeof(buf));
		if (n < 0 && errno == EINTR)
			continue;
		if (n < 0)
			return ReadResult::Error;
		if (n == 0)
			return ReadResult::Closed;
		buffered_.append(buf, static_cast<size_t>(n));
	}
}

namespace {

// A write to a pipe whose reader is gone raises SIGPIPE; a library must not die of it
// nor change the process's dispositions, so the signal is blocked for this thread and a
// pending one consumed.
ssize_t write_pipe(int fd, const char *data, size_t size)
{
	sigset_t pipe_only, old;
	sigemptyset(&pipe_only);
	sigaddset(&pipe_only, SIGPIPE);
	pthread_sigmask(SIG_BLOCK, &pipe_only, &old);
	const ssize_t n = ::write(fd, data, size);
	const int err = errno;
	if (n < 0 && err == EPIPE) {
		const struct timespec none = {0, 0};
		(void)sigtimedwait(&pipe_only, nullptr, &none);
	}
	pthread_sigmask(SIG_SETMASK, &old, nullptr);
	errno = err;
	return n;
}

}  // namespace

bool write_line(int fd, const std::string &line)
{
	const std::string out = line + "\n";
	size_t done = 0;
	while (done < out.size()) {
		ssize_t n = ::send(fd, out.data() + done, out.size() - done, MSG_NOSIGNAL);
		if (n < 0 && errno == ENOTSOCK)
			n = write_pipe(fd, out.data() + done, out.size() - done);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return false;
		done += static_cast<size_t>(n);
	}
	return true;
}

}  // namespace nuq
