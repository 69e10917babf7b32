#include "node_calls.h"

#include <dlfcn.h>

#include <cstdio>

namespace keladm {
namespace {

NodeCalls calls;
bool loaded = false;

}  // namespace

bool load_node_calls()
{
	if (loaded)
		return true;
	// Local: keladm reaches it through this table alone, and libkel.so has the texts of
	// the node side's statuses itself.
	void *lib = dlopen("libkel_node.so.1", RTLD_NOW | RTLD_LOCAL);
	if (lib == nullptr) {
		std::fprintf(stderr, "keladm: cannot load the node side: %s\n", dlerror());
		return false;
	}
#define KELADM_NODE_LOAD(name)                                                                     \
	if ((calls.name = reinterpret_cast<decltype(calls.name)>(dlsym(lib, #name))) == nullptr) { \
		std::fprintf(stderr, "keladm: the node side lacks %s: %s\n", #name, dlerror());    \
		return false;                                                                      \
	}
	KELADM_NODE_CALLS(KELADM_NODE_LOAD)
#undef KELADM_NODE_LOAD
	loaded = true;
	return true;
}

const NodeCalls &node()
{
	return calls;
}

}  // namespace keladm
