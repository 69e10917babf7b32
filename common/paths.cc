#include "paths.h"

#include <cstdlib>

namespace kel::paths {

std::string under_root(const char *absolute)
{
	// secure_getenv: a set-id caller must not be steered to another store by its user.
	const char *root = secure_getenv("KEL_ROOT");
	std::string path = root != nullptr ? root : "";
	while (!path.empty() && path.back() == '/')
		path.pop_back();
	path += absolute;
	return path;
}

}  // namespace kel::paths
