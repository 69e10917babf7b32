#include "ssh_share.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "paths.h"

namespace nuq {
namespace {

constexpr long kDefaultPersistSeconds = 60;
// ssh names a socket by a 40-digit hash of host, port and user, and first makes it
// under that name with a 17-character suffix.
constexpr size_t kSocketNameLen = 1 + 40 + 17;

long persist_seconds()
{
	const char *text = secure_getenv("KEL_SSH_PERSIST");
	if (text == nullptr || *text == '\0')
		return kDefaultPersistSeconds;
	char *end = nullptr;
	const long seconds = std::strtol(text, &end, 10);
	return *end == '\0' && seconds >= 0 && seconds <= 86400 ? seconds : kDefaultPersistSeconds;
}

}  // namespace

bool private_dir(const std::string &dir, uid_t uid)
{
	struct stat st;
	return lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == uid &&
	    (st.st_mode & 077) == 0;
}

std::vector<std::string> ssh_share_options()
{
	const long seconds = persist_seconds();
	if (seconds == 0)
		return {};
	// One directory per user: a socket reaches hosts with its maker's rights.
	const uid_t uid = geteuid();
	const std::string run = kel::paths::under_root(kel::paths::kRunDir);
	const std::string dir = run + "/ssh-" + std::to_string(uid);
	if (dir.size() + kSocketNameLen >= sizeof(sockaddr_un::sun_path))
		return {};
	if (!kel::paths::make_dirs(run, 0755) || (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) ||
	    !private_dir(dir, uid))
		return {};
	return {"-o", "ControlMaster=auto", "-o", "ControlPath=" + dir + "/%C", "-o",
	    "ControlPersist=" + std::to_string(seconds)};
}

}  // namespace nuq
