// Telling the running daemon to re-read its configuration.
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "instance_file.h"
#include "paths.h"
#include "text_file.h"
#include "vur.h"

namespace {

// Whether `pid` is a running keld: a stale pid file may name a process that reused the
// number, and that one must not get our signal.
bool is_keld(pid_t pid)
{
	std::string name;
	return kel::read_text_file("/proc/" + std::to_string(pid) + "/comm", &name) && name == "keld\n";
}

// The number in the daemon's pid file, or 0 when there is none to read.
pid_t recorded_pid()
{
	std::string text;
	if (!kel::read_text_file(kel::paths::under_root(kel::paths::kPidFile), &text))
		return 0;
	char *end = nullptr;
	const long pid = std::strtol(text.c_str(), &end, 10);
	return end != text.c_str() && pid > 0 && pid <= 4194304 ? static_cast<pid_t>(pid) : 0;
}

}  // namespace

extern "C" int tog_refresh_instance(const char *fmri)
{
	(void)fmri;  // one daemon serves every instance
	const pid_t pid = recorded_pid();
	if (pid == 0 || !is_keld(pid))
		return 0;  // no daemon runs: nothing to refresh
	if (kill(pid, SIGHUP) == 0 || errno == ESRCH)
		return 0;
	vur::set_error(errno == EPERM ? VUR_ERROR_PERMISSION_DENIED : VUR_ERROR_BACKEND_ACCESS);
	return -1;
}
