#include "log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace nuq::log {
namespace {

std::atomic<int> log_fd{-1};
std::atomic<bool> stamped{false};

// Whether `fd` is the stream the service manager connected to the journal, which stamps
// each line itself: it names that stream's device and inode in JOURNAL_STREAM.
bool journal_stream(int fd)
{
	const char *named = std::getenv("JOURNAL_STREAM");
	struct stat st;
	unsigned long long dev = 0, ino = 0;
	return named != nullptr && std::sscanf(named, "%llu:%llu", &dev, &ino) == 2 && fstat(fd, &st) == 0 &&
	    st.st_dev == dev && st.st_ino == ino;
}

// The time of a line, to the millisecond, in UTC: "2026-11-26T15:40:01.123Z ".
std::string now_text()
{
	struct timespec ts;
	clock_gettime(CLOCK_REALTIME, &ts);
	struct tm tm;
	char text[40];
	const size_t n = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", gmtime_r(&ts.tv_sec, &tm));
	std::snprintf(text + n, sizeof(text) - n, ".%03ldZ ", ts.tv_nsec / 1000000);
	return text;
}

}  // namespace

void enable(int fd)
{
	// Outside the journal (a terminal, a file, another supervisor) a line carries its
	// time; the priority prefix stays first, where a reader of such prefixes looks.
	stamped = !journal_stream(fd);
	log_fd = fd;
}

void write(int priority, const std::string &text)
{
	const int fd = log_fd;
	if (fd == -1)
		return;
	const std::string prefix = "<" + std::to_string(priority) + ">" + (stamped ? now_text() : "");
	std::string line = prefix + text + "\n";
	for (size_t i = prefix.size(); i + 1 < line.size(); i++)
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
