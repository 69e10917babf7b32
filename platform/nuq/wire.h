// The wire: JSON objects, one per line, over a pair of descriptors.
#pragma once

#include <chrono>
#include <string>

namespace nuq {

// The longest line either side accepts; a longer one is refused and the connection
// closed, since what follows it cannot be framed any more.
inline constexpr size_t kMaxLine = 256 * 1024;

enum class ReadResult { Line, Closed, Timeout, TooLong, Error };

// Reads lines from one descriptor, keeping what arrived beyond the line for the next.
class LineReader {
public:
	explicit LineReader(int fd) : fd_(fd) {}
	// Waits at most `timeout` (negative: for ever) for a whole line.
	ReadResult read(std::string *line, std::chrono::milliseconds timeout);

private:
	int fd_;
	std::string buffered_;
};

// Writes `line` and a newline in full; false when the peer is gone.
bool write_line(int fd, const std::string &line);

}  // namespace nuq
