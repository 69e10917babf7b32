// What a caller's long text costs: the port list of a scratch store selected by a filter of
// N names, as the controller's getVPortInfo serves it, in two shapes: one key with N
// alternatives ("vport=p0,p1,..."), and N keys ("vport=p0,vport=p1,..."); and, in the
// shape "properties", reading a property text of N entries ("p0=v,p1=v,...") as every
// operation reads its caller's properties. Prints one JSON object per shape and N with the
// code answered and the time it took.
// Usage: filter_bench [--shape alternatives|keys|properties] [N...]
// Under callgrind, count `work_once` alone (--collect-atstart=no
// --toggle-collect='*work_once*'); bench/filter_cost.sh does that.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "scratch_store.h"

namespace {

std::string text_of(const char *shape, int n)
{
	const bool keys = std::strcmp(shape, "keys") == 0, props = std::strcmp(shape, "properties") == 0;
	std::string text = props ? "" : "vport=";
	for (int i = 0; i < n; i++) {
		if (i > 0)
			text += keys ? ",vport=" : ",";
		text += "p" + std::to_string(i) + (props ? "=v" : "");
	}
	return text;
}

// Kept out of line so that callgrind can count this call and nothing else.
[[gnu::noinline]] int work_once(kel_dbhandle_t h, const char *shape, const std::string &text)
{
	if (std::strcmp(shape, "properties") == 0) {
		attrset_t *set = nullptr;
		const int rc = kel_str2attrset(text.c_str(), &set, B_TRUE, ATTRSET_UNIQUE_NAME);
		attrset_free(set);
		return rc;
	}
	list_t list;
	const int rc = kel_db_get_filtered_vportlist(h, text.c_str(), &list, 0);
	if (rc == KEL_SUCCESS)
		kel_free_vportlist(&list);
	return rc;
}

}  // namespace

int main(int argc, char **argv)
{
	std::vector<const char *> shapes = {"alternatives", "keys", "properties"};
	if (argc > 2 && std::strcmp(argv[1], "--shape") == 0) {
		shapes = {argv[2]};
		argc -= 2;
		argv += 2;
	}
	kel::bench::ScratchStore store;
	for (const char *shape : shapes) {
		for (int n : kel::bench::sizes(argc, argv)) {
			const std::string text = text_of(shape, n);
			const auto t0 = std::chrono::steady_clock::now();
			const int rc = work_once(store.get(), shape, text);
			const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
			std::printf(
			    "{\"shape\": \"%s\", \"names\": %d, \"text_bytes\": %zu, \"rc\": %d, \"s\": %.4f}\n", shape,
			    n, text.size(), rc, s);
			std::fflush(stdout);
		}
	}
	return 0;
}
