// Argument lists: the link-property text a VNIC's maker receives, as (name, value) pairs.
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "c_boundary.h"
#include "wexo.h"

struct wexo_arg_list {
	std::vector<std::pair<std::string, std::string>> args;
};

namespace {

// Reads `text` into `out` as wexo_parse_link_props does; `novalues` takes bare names.
wexo_status_t parse(const std::string &text, bool novalues, wexo_arg_list &out)
{
	size_t start = 0;
	while (start <= text.size()) {
		size_t comma = text.find(',', start);
		if (comma == std::string::npos)
			comma = text.size();
		const std::string piece = text.substr(start, comma - start);
		start = comma + 1;
		const size_t eq = novalues ? std::string::npos : piece.find('=');
		if (eq == std::string::npos && !out.args.empty() && !novalues) {
			// A piece without "=" is one more value of the pair before it.
			out.args.back().second += "," + piece;
			continue;
		}
		const std::string name = piece.substr(0, eq);
		if (name.empty() || (eq == std::string::npos && !novalues))
			return WEXO_STATUS_BADVAL;
		for (const auto &arg : out.args)
			if (arg.first == name)
				return WEXO_STATUS_BADVAL;
		out.args.emplace_back(name, eq == std::string::npos ? "" : piece.substr(eq + 1));
	}
	return WEXO_STATUS_OK;
}

}  // namespace

extern "C" {

wexo_status_t wexo_parse_link_props(const char *text, wexo_arg_list_t **listp, boolean_t novalues) noexcept
{
	if (listp == nullptr)
		return WEXO_STATUS_BADARG;
	*listp = nullptr;
	if (text == nullptr)
		return WEXO_STATUS_BADARG;
	auto *list = new (std::nothrow) wexo_arg_list;
	if (list == nullptr)
		return WEXO_STATUS_NOMEM;
	// An empty text is an empty list.
	const wexo_status_t st = kel::wexo_boundary(
	    [&] { return *text == '\0' ? WEXO_STATUS_OK : parse(text, novalues == B_TRUE, *list); });
	if (st != WEXO_STATUS_OK) {
		delete list;
		return st;
	}
	*listp = list;
	return WEXO_STATUS_OK;
}

void wexo_free_args(wexo_arg_list_t *list) noexcept
{
	delete list;
}

uint_t wexo_arg_count(const wexo_arg_list_t *list) noexcept
{
	return list != nullptr ? static_cast<uint_t>(list->args.size()) : 0;
}

const char *wexo_arg_name(const wexo_arg_list_t *list, uint_t i) noexcept
{
	return i < wexo_arg_count(list) ? list->args[i].first.c_str() : nullptr;
}

const char *wexo_arg_value(const wexo_arg_list_t *list, uint_t i) noexcept
{
	return i < wexo_arg_count(list) ? list->args[i].second.c_str() : nullptr;
}

}  // extern "C"
