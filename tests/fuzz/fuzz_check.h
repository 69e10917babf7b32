// An invariant a fuzz target checks: a broken one aborts, which the fuzzer reports.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                                   \
	do {                                                                                               \
		if (!(cond)) {                                                                             \
			std::fprintf(stderr, "invariant broken: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
			std::abort();                                                                      \
		}                                                                                          \
	} while (0)
