#include "daemon_module.h"

#include <sys/utsname.h>
#include <unistd.h>

#include "libkel.h"
#include "nuq_errors.h"
#include "owners.h"

namespace keld {
namespace {

std::string node_name()
{
	struct utsname u;
	return uname(&u) == 0 ? u.nodename : "";
}

}  // namespace

void DaemonState::reload()
{
	Settings fresh;
	kel::RecordList<kel_togprop_t> settings;
	if (settings.read([](list_t *l) { return kel_get_client_togprop("controller", l); }) == KEL_SUCCESS &&
	    !settings.empty())
		fresh.controller = settings.front()->esp_propval;
	std::lock_guard<std::mutex> hold(mutex_);
	settings_ = fresh;
	reloads_++;
}

Settings DaemonState::settings() const
{
	std::lock_guard<std::mutex> hold(mutex_);
	return settings_;
}

nuq::Interface daemon_interface(const DaemonState &state)
{
	nuq::Interface iface;
	iface.name = "kel.Daemon";
	iface.lookup = [](const nuq::Json &keys, bool strict, nuq::Json *found) {
		const std::string host = node_name();
		const std::string *asked = nuq::text_member(keys, "host");
		if ((strict || nuq::member(keys, "host") != nullptr) && (asked == nullptr || *asked != host))
			return false;
		*found = {{"host", host}};
		return true;
	};
	iface.methods["info"] = [&state](const nuq::Json &, const nuq::Json &args) {
		nuq::Json info = {{"host", node_name()}, {"version", KELD_VERSION}, {"pid", getpid()},
		    {"uptime", state.uptime()}, {"reloads", state.reloads()}, {"controller", state.settings().controller}};
		// Reaching the controller takes as long as the transport does: only when asked, and
		// only from a host that has one to reach.
		const nuq::Json *check = nuq::member(args, "check");
		if (check != nullptr && check->is_boolean() && *check && !state.settings().controller.empty())
			info["controller_rc"] = kel_check_controller();
		return nuq::Reply{NUQ_E_SUCCESS, info};
	};
	return iface;
}

}  // namespace keld
