#include "pg_lib.h"

#include <dlfcn.h>

#include <mutex>

namespace kel::pg {

const Calls *lib()
{
	static Calls loaded;
	static const Calls *found = nullptr;
	static std::once_flag once;
	std::call_once(once, [] {
		// Kept loaded for the life of the process, as if it had been linked.
		void *so = dlopen("libpq.so.5", RTLD_NOW | RTLD_LOCAL);
		if (so == nullptr)
			return;
		bool all = true;
#define KEL_PG_LOAD(name)                                                    \
	loaded.name = reinterpret_cast<decltype(&::name)>(dlsym(so, #name)); \
	all = all && loaded.name != nullptr;
		KEL_PG_CALLS(KEL_PG_LOAD)
#undef KEL_PG_LOAD
		if (all)
			found = &loaded;
	});
	return found;
}

}  // namespace kel::pg
