#include "log.h"

#include <unistd.h>

#include <atomic>

namespace nuq::log {
namespace {

std::atomic<int> log_fd{-1};

}  // namespace

void enable(int fd)
{
	log_fd = fd;
}

void write(int priority, const std::string &text)
{
	const int fd = log_fd;
	if (fd == -1)
		return;
	std::string line = "<" + std::to_string(priority) + ">" + text + "\n";
	for (size_t i = 3; i + 1 < line.size(); i++)
		if (line[i] == '\n' || line[i] == '\r')
			line[i] = ' ';
	// One write per line keeps lines from concurrent threads whole.
	(void)!::write(fd, line.data(), line.size());
}

bool Limiter::allow(unsigned long *suppressed)
{
	std::lock_guard<std::mutex> hold(mutex_);
	const auto now = std::chrono::steady_clock::now();
	if (now - start_ >= window_) {
		start_ = now;
		used_ = 0;
	}
	if (used_ >= burst_) {
		dropped_++;
		return false;
	}
	used_++;
	*suppressed = dropped_;
	dropped_ = 0;
	return true;
}

void write_limited(Limiter &limiter, int priority, const std::string &text)
{
	unsigned long suppressed = 0;
	if (!limiter.allow(&suppressed))
		return;
	write(priority,
	    suppressed == 0 ? text : text + " (and " + std::to_string(suppressed) + " more like it not logged)");
}

}  // namespace nuq::log
