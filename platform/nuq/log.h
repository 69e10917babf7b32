// keld's log: one line per event on standard error, each with the journal's priority
// prefix ("<3>" error to "<7>" debug), which the service manager reads as the priority,
// and, when standard error is not the journal's stream, the time after it.
// The same objects run inside other programs (the library's callers, the tests), whose
// standard error is not ours to write: nothing is written until the daemon enables it.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

namespace nuq::log {

enum Priority { kErr = 3, kWarning = 4, kNotice = 5, kInfo = 6, kDebug = 7 };

// Starts writing to `fd` (standard error for keld).
void enable(int fd);
// Writes one line at `priority`; line breaks inside `text` become spaces, so a caller's
// text can never forge a line of its own.
void write(int priority, const std::string &text);

// Lets through at most `burst` events per `window`, and counts the rest: for what a
// caller can cause at will (refusals, exhausted limits), so that a flood of them costs
// one line per window.
class Limiter {
public:
	Limiter(unsigned burst, std::chrono::seconds window) : burst_(burst), window_(window) {}
	// Whether this event may be logged; *suppressed gets how many were not since the
	// last one that was.
	bool allow(unsigned long *suppressed);

private:
	std::mutex mutex_;
	unsigned burst_;
	std::chrono::seconds window_;
	std::chrono::steady_clock::time_point start_{};
	unsigned used_ = 0;
	unsigned long dropped_ = 0;
};

// Writes one line at `priority` when `limiter` lets it, saying how many were not.
void write_limited(Limiter &limiter, int priority, const std::string &text);

}  // namespace nuq::log
