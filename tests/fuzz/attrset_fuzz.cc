// Property strings: reading never fails unsafely, and a set read with unique names
// writes back to a text that reads again, with no more non-empty entries than it had.
// (Fewer is possible: a name with leading blanks loses them when it comes first and may
// then merge with another.) A value ending with a comma is the exception: written last,
// it leaves a trailing comma, which the reader refuses by design.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "fuzz_check.h"

namespace {

int nonempty_entries(attrset_t *set, bool *comma_at_end)
{
	int n = 0;
	*comma_at_end = false;
	for (attrset_entry_t *e = attrset_next_entry(set, nullptr); e; e = attrset_next_entry(set, e)) {
		char *value = nullptr;
		FUZZ_CHECK(attrset_entry_value_string(e, &value) == 0);
		const size_t len = std::strlen(value);
		n += len != 0;
		*comma_at_end = *comma_at_end || (len != 0 && value[len - 1] == ',');
	}
	return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string text(reinterpret_cast<const char *>(data), size);
	for (int mode = 0; mode < 4; mode++) {
		attrset_t *set = nullptr;
		const boolean_t values = (mode & 1) ? B_TRUE : B_FALSE;
		const int flags = (mode & 2) ? ATTRSET_UNIQUE_NAME : 0;
		const int rc = kel_str2attrset(text.c_str(), &set, values, flags);
		FUZZ_CHECK(rc == KEL_SUCCESS || rc == KEL_E_INVALID_ARGS);
		FUZZ_CHECK(rc == KEL_SUCCESS || set == nullptr);
		char *written = nullptr;
		FUZZ_CHECK(kel_attrset2str(set, &written) == KEL_SUCCESS);
		bool comma_at_end = false;
		const int entries = set ? nonempty_entries(set, &comma_at_end) : 0;
		if (values && flags && set != nullptr && !comma_at_end) {
			attrset_t *again = nullptr;
			FUZZ_CHECK(kel_str2attrset(written, &again, B_TRUE, flags) == KEL_SUCCESS);
			bool unused;
			FUZZ_CHECK((again ? nonempty_entries(again, &unused) : 0) <= entries);
			attrset_free(again);
		}
		std::free(written);
		attrset_free(set);
	}
	return 0;
}
