#include "xml_uri.h"

#include <dlfcn.h>

#include <mutex>

namespace kel::xml_uri {
namespace {

struct Calls {
	decltype(&xmlParseURI) parse = nullptr;
	decltype(&xmlFreeURI) free = nullptr;
};

const Calls &calls()
{
	static Calls loaded;
	static std::once_flag once;
	std::call_once(once, [] {
		// Kept loaded for the life of the process, as if it had been linked.
		void *lib = dlopen("libxml2.so.2", RTLD_NOW | RTLD_LOCAL);
		if (lib == nullptr)
			return;
		auto parse = reinterpret_cast<decltype(&xmlParseURI)>(dlsym(lib, "xmlParseURI"));
		auto free = reinterpret_cast<decltype(&xmlFreeURI)>(dlsym(lib, "xmlFreeURI"));
		if (parse != nullptr && free != nullptr)
			loaded = {parse, free};
	});
	return loaded;
}

}  // namespace

void Free::operator()(xmlURIPtr uri) const
{
	// A URI exists only when the parser was loaded, so its free function was too.
	calls().free(uri);
}

Ptr parse(const char *text)
{
	const Calls &c = calls();
	return Ptr(c.parse != nullptr ? c.parse(text) : nullptr);
}

}  // namespace kel::xml_uri
