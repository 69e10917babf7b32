// Work on several hosts at once: each host's share runs on its own thread, at most
// kMaxParallelHosts at a time (a rack of hosts in one round: the threads mostly wait on
// the network), and every thread is joined before the call returns, so a caller never
// finds a thread of ours running after it.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <system_error>
#include <thread>
#include <vector>

namespace kel {

inline constexpr size_t kMaxParallelHosts = 64;

// Calls `work(i)` once for every i below `count`. `work` must not throw. When no thread
// can be started, the caller's thread does what is left.
template <class Work>
void fan_out(size_t count, Work &&work)
{
	std::atomic<size_t> next{0};
	auto drain = [&] {
		for (size_t i = next++; i < count; i = next++)
			work(i);
	};
	std::vector<std::thread> threads;
	const size_t wanted = std::min(count, kMaxParallelHosts);
	try {
		threads.reserve(wanted);
		for (size_t t = 1; t < wanted; t++)
			threads.emplace_back(drain);
	} catch (const std::system_error &) {
	} catch (const std::bad_alloc &) {
	}
	drain();
	for (std::thread &t : threads)
		t.join();
}

}  // namespace kel
