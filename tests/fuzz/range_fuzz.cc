// Range-sets: input is "a\nb". For each range type, whenever a is valid: its merge is
// valid and contains a, and a minus its own merge is empty. Whenever b is also valid
// and inside merged a, the difference is valid, inside a, and shares no value with b.
// (The subtrahend may lie above all of the minuend; such elements are passed over.)
#include <cstdint>
#include <cstdlib>
#include <string>

#include <kel/libkel.h>
#include "fuzz_check.h"
#include "range.h"

namespace {

struct Bounds {
	const char *min, *max;
};

constexpr Bounds kBounds[] = {
    {"0", "2147483647"},
    {"0.0.0.0", "255.255.255.255"},
    {"::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
};

bool valid(const std::string &r, int type)
{
	return kel_rsrc_valid_range(r.c_str(), type, kBounds[type].min, kBounds[type].max, nullptr) == KEL_SUCCESS;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string input = std::string(reinterpret_cast<const char *>(data), size).c_str();
	const size_t nl = input.find('\n');
	const std::string a = input.substr(0, nl);
	const std::string b = nl == std::string::npos ? "" : input.substr(nl + 1);
	for (int type = 0; type < 3; type++) {
		if (!valid(a, type))
			continue;
		char merged[1024];
		if (kel_rsrc_range_merge(a.c_str(), merged, sizeof(merged), type) != KEL_SUCCESS)
			continue;
		FUZZ_CHECK(valid(merged, type));
		FUZZ_CHECK(kel_rsrc_range_contains(merged, a.c_str(), type) == KEL_SUCCESS);
		char none[1024];
		FUZZ_CHECK(kel_rsrc_range_diff(merged, merged, none, sizeof(none), type) == KEL_SUCCESS);
		FUZZ_CHECK(none[0] == '\0');
		if (!valid(b, type) || kel_rsrc_range_contains(merged, b.c_str(), type) != KEL_SUCCESS)
			continue;
		char *rest = nullptr;
		FUZZ_CHECK(kel_rsrc_range_diff(merged, b.c_str(), &rest, -1, type) == KEL_SUCCESS);
		FUZZ_CHECK(valid(rest, type));
		FUZZ_CHECK(kel_rsrc_range_contains(merged, rest, type) == KEL_SUCCESS);
		// Nothing of b is left: subtracting b again is refused (b no longer lies inside)
		// or, where b's elements lie above all that is left, removes nothing.
		char *again = nullptr;
		const int rc = kel_rsrc_range_diff(rest, b.c_str(), &again, -1, type);
		FUZZ_CHECK(rc == KEL_E_INVALID_RANGE || (rc == KEL_SUCCESS && std::string(again) == rest));
		std::free(again);
		std::free(rest);
	}
	return 0;
}
