#include "paths.h"

#include <sys/stat.h>

#include <cerrno>
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

bool make_dirs(const std::string &dir, mode_t mode)
{
	struct stat st;
	if (dir.empty() || stat(dir.c_str(), &st) == 0)
		return !dir.empty() && S_ISDIR(st.st_mode) ? true : (errno = ENOTDIR, false);
	const size_t slash = dir.find_last_of('/', dir.find_last_not_of('/'));
	if (slash != std::string::npos && slash != 0 && !make_dirs(dir.substr(0, slash), mode))
		return false;
	if (mkdir(dir.c_str(), mode) != 0)
		return errno == EEXIST;  // made by someone else meanwhile: theirs to set
	return chmod(dir.c_str(), mode) == 0;
}

}  // namespace kel::paths
