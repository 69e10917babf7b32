// Telling the running daemon to re-read its configuration.
#include <signal.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "instance_file.h"
#include "paths.h"
#include "vur.h"

namespace {

// Whether `pid` is a running keld: a stale pid file may name a process that reused the
// number, and that one must not get our signal.
bool is_keld(pid_t pid)
{
	std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
	std::string name;
	return std::getline(comm, name) && name == "keld";
}

}  // namespace

extern "C" int tog_refresh_instance(const char *fmri)
{
	(void)fmri;	// one daemon serves every instance
	std::ifstream pidfile(kel::paths::under_root(kel::paths::kPidFile));
	long pid = 0;
	if (!(pidfile >> pid) || pid <= 0 || !is_keld(static_cast<pid_t>(pid)))
		return 0;	// no daemon runs: nothing to refresh
	if (kill(static_cast<pid_t>(pid), SIGHUP) == 0 || errno == ESRCH)
		return 0;
	vur::set_error(errno == EPERM ? VUR_ERROR_PERMISSION_DENIED : VUR_ERROR_BACKEND_ACCESS);
	return -1;
}
