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
	iface.methods["info"] = [&state](const nuq::Json &, const nuq::Json &) {
		return nuq::Reply{NUQ_E_SUCCESS,
		    {{"version", KELD_VERSION}, {"pid", getpid()}, {"reloads", state.reloads()},
		        {"controller", state.settings().controller}}};
	};
	return iface;
}

}  // namespace keld
