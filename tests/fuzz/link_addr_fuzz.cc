// Link-layer addresses: whatever parses prints and parses back to the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "kelnet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string text(reinterpret_cast<const char *>(data), size);
	int len = 0;
	unsigned char *bytes = _link_aton(text.c_str(), &len);
	if (bytes == nullptr) {
		FUZZ_CHECK(len == -1);
		return 0;
	}
	FUZZ_CHECK(len >= 1 && len <= 20);
	char *printed = _link_ntoa(bytes, nullptr, len, 1);
	FUZZ_CHECK(printed != nullptr && std::strlen(printed) < 3 * static_cast<size_t>(len));
	int len2 = 0;
	unsigned char *back = _link_aton(printed, &len2);
	FUZZ_CHECK(back != nullptr && len2 == len && std::memcmp(back, bytes, len) == 0);
	std::free(back);
	std::free(printed);
	std::free(bytes);
	return 0;
}
