// Link property texts from the controller: a text either parses or is refused; a parsed
// list prints back to a text that parses to the same list, and its VXLAN properties
// extract or are refused without reading past what was given.
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "wexo.h"

namespace {

std::string joined(const wexo_arg_list_t *args)
{
	std::string out;
	for (uint_t i = 0; i < wexo_arg_count(args); i++)
		out += (i ? "," : "") + std::string(wexo_arg_name(args, i)) + "=" + wexo_arg_value(args, i);
	return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string text = std::string(reinterpret_cast<const char *>(data), size).c_str();
	wexo_arg_list_t *args = nullptr;
	if (wexo_parse_link_props(text.c_str(), &args, B_FALSE) != WEXO_STATUS_OK) {
		FUZZ_CHECK(args == nullptr);
		return 0;
	}
	wexo_arg_list_t *again = nullptr;
	FUZZ_CHECK(wexo_parse_link_props(joined(args).c_str(), &again, B_FALSE) == WEXO_STATUS_OK);
	FUZZ_CHECK(joined(again) == joined(args));
	mac_vxlan_props_t mvp;
	const wexo_status_t st = wexo_link_proplist_extract(nullptr, 0, DATALINK_CLASS_VXLAN, args, &mvp, 0);
	FUZZ_CHECK(st == WEXO_STATUS_OK || st == WEXO_STATUS_BADVAL);
	if (st == WEXO_STATUS_OK && (mvp.mvp_mask & MVP_VXLAN_VNI))
		FUZZ_CHECK(mvp.mvp_vni <= 16777215);
	wexo_free_args(again);
	wexo_free_args(args);
	return 0;
}
