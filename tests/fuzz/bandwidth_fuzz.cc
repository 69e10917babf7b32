// Bandwidth texts: an accepted text gives a positive rate, and the same text with a
// trailing junk character is refused.
#include <cstdint>
#include <string>

#include "bandwidth.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	// The parser sees a C string: cut the input at its first NUL, if any.
	const std::string text = std::string(reinterpret_cast<const char *>(data), size).c_str();
	uint64_t bps = 0;
	if (!wexo_str2bw(text.c_str(), &bps))
		return 0;
	FUZZ_CHECK(bps > 0);
	FUZZ_CHECK(!wexo_str2bw((text + "x").c_str(), nullptr));
	return 0;
}
