// Filters: any text either is refused or becomes a clause that fits its buffer and
// carries no caller text: quotes, statement ends and comment marks can only have come
// from the input, since values travel as bound parameters.
#include <cstdint>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "filter.h"
#include "fuzz_check.h"

namespace {

struct Join {
	const char *t1, *t2;
};

constexpr Join kJoins[] = {
    {"kel_tbl", "vport_tbl"},
    {"kel_tbl", "ipnet_tbl"},
    {"vport_tbl", "kel_tbl"},
    {"ipnet_tbl", "kel_tbl"},
    {"ctrl_tbl", nullptr},
    {"misc_tbl", nullptr},
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string text = std::string(reinterpret_cast<const char *>(data), size).c_str();
	for (const Join &j : kJoins) {
		char clause[KEL_FILTER_CLAUSE_LEN];
		attrset_t *params = nullptr;
		if (kel_filterstr2sqlfmt(text.c_str(), clause, sizeof(clause), &params, j.t1, j.t2) != KEL_SUCCESS) {
			FUZZ_CHECK(params == nullptr);
			continue;
		}
		FUZZ_CHECK(std::strlen(clause) < sizeof(clause));
		FUZZ_CHECK(std::strpbrk(clause, "'\";") == nullptr);
		FUZZ_CHECK(std::strstr(clause, "--") == nullptr);
		attrset_free(params);
	}
	for (int type = KEL_TYPE_KEL; type <= KEL_TYPE_IPNET; type++)
		(void)kel_validate_filterstr(text.c_str(), static_cast<kel_type_t>(type),
		    static_cast<kel_proptype_t>(1 << type));
	return 0;
}
