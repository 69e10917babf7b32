#include "audit.h"

#include <kel/sys/fabric.h>

#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "paths.h"
#include "unique_fd.h"

namespace kel::audit {
namespace {

// The change this thread is in, and who it runs for.
struct State {
	int depth = 0;
	std::string action, detail;  // what refine() said
	std::vector<std::pair<std::string, int>> missed;
	std::string user, host;  // a remote caller's; empty: the local user
};
thread_local State state;

// Room enough for a property text, and no more: a value is the caller's and may be long.
constexpr size_t kValueMax = 1024;

// A value as a log line may hold it: one line, bounded.
std::string clean(std::string v)
{
	if (v.size() > kValueMax)
		v.resize(kValueMax);
	for (char &c : v)
		if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
			c = ' ';
	return v;
}

std::string local_user()
{
	const uid_t uid = getuid();
	struct passwd pw, *found = nullptr;
	char buf[1024];
	if (getpwuid_r(uid, &pw, buf, sizeof(buf), &found) == 0 && found != nullptr)
		return found->pw_name;
	return "uid " + std::to_string(uid);
}

bool send_to(const std::string &path, const std::string &datagram)
{
	struct sockaddr_un addr {};
	if (path.size() >= sizeof(addr.sun_path))
		return false;
	const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
	if (fd.get() == -1)
		return false;
	addr.sun_family = AF_UNIX;
	std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
	return sendto(fd.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
	           reinterpret_cast<const struct sockaddr *>(&addr),
	           sizeof(addr)) == static_cast<ssize_t>(datagram.size());
}

using Fields = std::vector<std::pair<std::string, std::string>>;

// The journal's own protocol keeps each field apart; the classic log socket gets the
// message with the fields after it as KEY="value".
void emit(int priority, const std::string &message, const Fields &fields)
{
	std::string native = "MESSAGE=" + message + "\nPRIORITY=" + std::to_string(priority) +
	    "\nSYSLOG_FACILITY=" + std::to_string(LOG_DAEMON >> 3) + "\nSYSLOG_IDENTIFIER=kel-audit\n";
	for (const auto &[k, v] : fields)
		native += k + "=" + v + "\n";
	if (send_to(paths::under_root("/run/systemd/journal/socket"), native))
		return;
	char when[32];
	const time_t now = std::time(nullptr);
	struct tm tm;
	std::strftime(when, sizeof(when), "%b %e %H:%M:%S", localtime_r(&now, &tm));
	std::string line = "<" + std::to_string(LOG_DAEMON | priority) + ">" + when + " kel-audit[" +
	    std::to_string(getpid()) + "]: " + message;
	for (const auto &[k, v] : fields) {
		std::string quoted;
		for (char c : v)
			quoted += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
		line += " " + k + "=\"" + quoted + "\"";
	}
	(void)send_to(paths::under_root("/dev/log"), line);
}

}  // namespace

Scope::Scope() noexcept : outermost_(state.depth++ == 0)
{
	if (outermost_) {
		state.action.clear();
		state.detail.clear();
		state.missed.clear();
	}
}

Scope::~Scope()
{
	state.depth--;
}

void refine(const char *action, const std::string &detail) noexcept
{
	try {
		state.action = action;
		state.detail = detail;
	} catch (...) {
	}
}

void missed(const std::string &host, int rc) noexcept
{
	try {
		state.missed.emplace_back(host, rc);
	} catch (...) {
	}
}

void set_caller(const std::string &user, const std::string &host) noexcept
{
	try {
		state.user = user;
		state.host = host;
	} catch (...) {
		state.user.clear();
		state.host.clear();
	}
}

void record(const Change &change, int rc) noexcept
{
	try {
		const std::string action = state.action.empty() ? change.action : state.action;
		const std::string detail = clean(state.detail.empty() ? change.detail : state.detail);
		const std::string object = clean((change.tenant.empty() ? "" : change.tenant + "/") + change.object);
		const bool remote = !state.user.empty();
		const std::string user = clean(remote ? state.user : local_user());
		const std::string who = user + (remote ? " on " + clean(state.host) : "");
		char msg[1024];
		const std::string outcome = rc == KEL_SUCCESS
		    ? "ok"
		    : std::string("failed: ") + kel_errmsg(rc, msg, sizeof(msg));
		Fields fields = {{"KEL_ACTION", action}, {"KEL_OBJECT", object}, {"KEL_USER", user},
		    {"KEL_OUTCOME", rc == KEL_SUCCESS ? "ok" : "failed"}, {"KEL_CODE", std::to_string(rc)}};
		if (remote)
			fields.emplace_back("KEL_REMOTE_HOST", clean(state.host));
		else if (const char *sudo = std::getenv("SUDO_USER"); sudo != nullptr && getuid() == 0)
			fields.emplace_back("KEL_SUDO_USER", clean(sudo));
		if (!detail.empty())
			fields.emplace_back("KEL_DETAIL", detail);
		if (rc != KEL_SUCCESS)
			fields.emplace_back("KEL_ERROR", clean(msg));
		const std::string what = action + " " + object + (detail.empty() ? "" : " (" + detail + ")");
		emit(rc == KEL_SUCCESS ? LOG_NOTICE : LOG_WARNING, what + " by " + who + ": " + outcome, fields);
		// A host that missed a change made anyway: a line of its own, naming the host.
		for (const auto &[host, code] : state.missed) {
			Fields f = fields;
			f.emplace_back("KEL_MISSED_HOST", clean(host));
			f.emplace_back("KEL_HOST_CODE", std::to_string(code));
			emit(LOG_WARNING,
			    what + " by " + who + ": host " + clean(host) +
			        " missed it: " + kel_errmsg(code, msg, sizeof(msg)),
			    f);
		}
	} catch (...) {
	}
}

}  // namespace kel::audit

extern "C" void kel_set_caller(const char *user, const char *host) noexcept
{
	(void)kel::c_boundary([&] {
		kel::audit::set_caller(kel::audit::text(user), kel::audit::text(host));
		return KEL_SUCCESS;
	});
}
