#include "kel_assert.h"

#include <cstdio>
#include <cstdlib>

[[noreturn]] void kel::assert_fail(const char *expr, const char *area, int line) noexcept
{
	std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", expr, area, line);
	std::abort();
}
