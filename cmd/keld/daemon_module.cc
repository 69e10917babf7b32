#include "daemon_module.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>

#include <kel/libkel.h>
#include <kel/libkel_node.h>
#include <kel/sys/fabric.h>
#include "datalink_error.h"
#include "log.h"
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
		    {"uptime", state.uptime()}, {"reloads", state.reloads()},
		    {"controller", state.settings().controller}};
		// Reaching the controller takes as long as the transport does: only when asked, and
		// only from a host that has one to reach.
		const nuq::Json *check = nuq::member(args, "check");
		if (check != nullptr && check->is_boolean() && *check && !state.settings().controller.empty())
			info["controller_rc"] = kel_check_controller();
		return nuq::Reply{NUQ_E_SUCCESS, info};
	};
	// What the fabric made here and nothing uses any more, for the controller's drift
	// check, and its removal when the controller repairs.
	iface.methods["getLeftovers"] = [](const nuq::Json &, const nuq::Json &args) {
		const nuq::Json *grace = nuq::member(args, "grace");
		if (grace != nullptr && (!grace->is_number_unsigned() || grace->get<uint64_t>() > 86400))
			return nuq::Reply{NUQ_E_BADARGS, nullptr};
		wexo_leftover_t *list = nullptr;
		size_t count = 0;
		const wexo_status_t st = wexo_fabric_leftovers(
		    grace != nullptr ? grace->get<long>() : WEXO_LEFTOVER_GRACE_SECONDS, &list, &count);
		nuq::Json found = nuq::Json::array();
		for (size_t i = 0; i < count; i++)
			found.push_back({{"kind", list[i].wl_kind}, {"name", list[i].wl_name},
			    {"what", list[i].wl_what}, {"age", list[i].wl_age}});
		std::free(list);
		return st == WEXO_STATUS_OK ? nuq::Reply{NUQ_E_SUCCESS, {{"leftovers", found}}} : datalink_error(st);
	};
	iface.methods["removeLeftover"] = [](const nuq::Json &, const nuq::Json &args) {
		const std::string *kind = nuq::text_member(args, "kind"), *name = nuq::text_member(args, "name");
		if (kind == nullptr || name == nullptr)
			return nuq::Reply{NUQ_E_BADARGS, nullptr};
		if (*kind == "responder") {
			// Its system port is the controller's to release: the node side asks for it, and
			// checks under the responder's lock that no guest of its kel came meanwhile.
			const int rc = kel_vnic_remove(name->c_str(), nullptr, KEL_VNIC_IF_IDLE);
			char msg[1024];
			nuq::log::write(rc == KEL_SUCCESS ? nuq::log::kInfo : nuq::log::kErr,
			    "removed the idle address responder " + *name +
			        (rc == KEL_SUCCESS ? "" : std::string(": ") + kel_errmsg(rc, msg, sizeof(msg))));
			return rc == KEL_SUCCESS ? nuq::Reply{NUQ_E_SUCCESS, nuq::Json::object()}
			                         : nuq::Reply{NUQ_E_OBJECT, {{"ekele_err", rc}, {"ekele_errmsg", msg}}};
		}
		const wexo_status_t st = wexo_fabric_remove_leftover(kind->c_str(), name->c_str());
		nuq::log::write(st == WEXO_STATUS_OK ? nuq::log::kInfo : nuq::log::kErr,
		    "removed what was left of " + *kind + " " + *name + (st == WEXO_STATUS_OK ? "" : ": failed"));
		return st == WEXO_STATUS_OK ? nuq::Reply{NUQ_E_SUCCESS, nuq::Json::object()} : datalink_error(st);
	};
	return iface;
}

}  // namespace keld
