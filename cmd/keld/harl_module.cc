// keld's "harl.Datalink" module: each call opens its own netlink handle, so calls from
// concurrent connections share nothing.
#include <net/if.h>

#include <string>
#include <vector>

#include <kel/sys/fabric.h>
#include "datalink_error.h"
#include "harl.h"
#include "harl_module.h"
#include "kelnet.h"
#include "log.h"
#include "nuq_errors.h"

namespace harl {
namespace {

using keld::datalink_error;

// More remotes than a kel could have hosts is a hostile caller, not a fabric.
constexpr size_t kMaxRemotes = 4096;

// Refusals any member of the kel group can cause at will are logged a few at a time.
nuq::log::Limiter refusals(10, std::chrono::seconds(10));

// Runs `body` with an open handle and the link named by `keys`, when the fabric made that
// link on this host: a VNIC bound through the library, or a link made on demand under
// one. Any other (the host's own uplink, a link in a namespace the fabric never touched,
// one an administrator made) keld leaves alone, whoever asks.
template <class Body>
nuq::Reply with_link(const nuq::Json &keys, Body &&body)
{
	wexo_handle_t h = nullptr;
	datalink_id_t id = 0;
	const std::string &name = keys.at("name").get_ref<const std::string &>();
	wexo_status_t st = find_link(name, &h, &id);
	if (st == WEXO_STATUS_OK && (st = wexo_link_owned(h, id, name.c_str())) == WEXO_STATUS_NOTFABRIC)
		nuq::log::write_limited(refusals, nuq::log::kWarning,
		    "refused to act on link " + name + ": the fabric did not make it");
	nuq::Reply reply = st == WEXO_STATUS_OK ? body(h, id) : datalink_error(st);
	wexo_close(h);
	return reply;
}

}  // namespace

wexo_status_t find_link(const std::string &name, wexo_handle_t *h, datalink_id_t *id)
{
	char link[IFNAMSIZ], ns[256];
	*h = nullptr;
	if (!dlparse_zonelinkname(name.c_str(), link, sizeof(link), ns, sizeof(ns)))
		return WEXO_STATUS_NOTFOUND;
	wexo_status_t st = wexo_open_netns(ns, h);
	return st == WEXO_STATUS_OK ? wexo_name2info(*h, link, id, nullptr) : st;
}

nuq::Interface datalink_interface()
{
	nuq::Interface iface;
	iface.name = "harl.Datalink";
	iface.lookup = [](const nuq::Json &keys, bool, nuq::Json *found) {
		const std::string *name = nuq::text_member(keys, "name");
		if (name == nullptr)
			return false;
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		const bool there = find_link(*name, &h, &id) == WEXO_STATUS_OK;
		wexo_close(h);
		if (there)
			*found = {{"name", *name}};
		return there;
	};
	iface.methods["getStat"] = [](const nuq::Json &keys, const nuq::Json &) {
		return with_link(keys, [](wexo_handle_t h, datalink_id_t id) {
			wexo_stats_t s{};
			const wexo_status_t st = wexo_link_stats(h, id, &s);
			if (st != WEXO_STATUS_OK)
				return datalink_error(st);
			// The kernel counts dropped packets, not their bytes.
			return nuq::Reply{NUQ_E_SUCCESS,
			    {{"dls_ipackets", s.ws_ipackets}, {"dls_rbytes", s.ws_rbytes}, {"dls_idrops", s.ws_idrops},
			        {"dls_idropbytes", 0}, {"dls_obytes", s.ws_obytes}, {"dls_opackets", s.ws_opackets},
			        {"dls_odrops", s.ws_odrops}, {"dls_odropbytes", 0}}};
		});
	};
	iface.methods["setProperty"] = [](const nuq::Json &keys, const nuq::Json &args) {
		const std::string *text = nuq::text_member(args, "text");
		if (text == nullptr)
			return nuq::Reply{NUQ_E_BADARGS, nullptr};
		const std::string &link = keys.at("name").get_ref<const std::string &>();
		const size_t eq = text->find('=');
		if (eq == std::string::npos)
			return datalink_error(WEXO_STATUS_BADARG);
		nuq::Reply reply = with_link(keys, [&](wexo_handle_t h, datalink_id_t id) {
			const wexo_status_t st = wexo_set_linkprop(h, id, text->substr(0, eq).c_str(),
			    text->substr(eq + 1).c_str());
			return st == WEXO_STATUS_OK ? nuq::Reply{NUQ_E_SUCCESS, nuq::Json::object()}
			                            : datalink_error(st);
		});
		nuq::log::write(reply.status == NUQ_E_SUCCESS ? nuq::log::kInfo : nuq::log::kErr,
		    "set " + *text + " on link " + link +
		        (reply.status == NUQ_E_SUCCESS ? "" : ": failed: " + nuq::dump_line(reply.value)));
		return reply;
	};
	// What is in force on the link, read back from the kernel, for the controller to
	// compare with what its store says.
	iface.methods["getState"] = [](const nuq::Json &keys, const nuq::Json &) {
		return with_link(keys, [](wexo_handle_t h, datalink_id_t id) {
			wexo_link_state_t s;
			const wexo_status_t st = wexo_link_state(h, id, &s);
			if (st != WEXO_STATUS_OK)
				return datalink_error(st);
			return nuq::Reply{NUQ_E_SUCCESS,
			    {{"mac", s.wls_mac}, {"lower", s.wls_lower}, {"lower_kind", s.wls_lower_kind},
			        {"lower_id", s.wls_lower_id}, {"local", s.wls_local}, {"group", s.wls_group},
			        {"maxbw", s.wls_maxbw}, {"filtered", s.wls_filtered == B_TRUE},
			        {"filters", s.wls_filters}, {"allowed", s.wls_allowed}}};
		});
	};
	// The flood list of a VXLAN link: its own endpoint and those it copies broadcast
	// frames to, for the controller to join the hosts of a kel without a group.
	iface.methods["getFlood"] = [](const nuq::Json &keys, const nuq::Json &) {
		return with_link(keys, [](wexo_handle_t h, datalink_id_t id) {
			wexo_flood_t flood;
			const wexo_status_t st = wexo_vxlan_get_flood(h, id, &flood);
			const std::vector<std::string> remotes(flood.wf_remotes, flood.wf_remotes + flood.wf_count);
			const std::string local = flood.wf_local;
			wexo_free_flood(&flood);
			return st == WEXO_STATUS_OK
			    ? nuq::Reply{NUQ_E_SUCCESS, {{"local", local}, {"remotes", remotes}}}
			    : datalink_error(st);
		});
	};
	iface.methods["setFlood"] = [](const nuq::Json &keys, const nuq::Json &args) {
		const nuq::Json *list = nuq::member(args, "remotes");
		const nuq::Json *add = nuq::member(args, "only_add");
		if (list == nullptr || !list->is_array() || list->size() > kMaxRemotes || add == nullptr ||
		    !add->is_boolean())
			return nuq::Reply{NUQ_E_BADARGS, nullptr};
		std::vector<const char *> remotes;
		for (const nuq::Json &r : *list) {
			if (!r.is_string())
				return nuq::Reply{NUQ_E_BADARGS, nullptr};
			remotes.push_back(r.get_ref<const std::string &>().c_str());
		}
		const std::string &link = keys.at("name").get_ref<const std::string &>();
		nuq::Reply reply = with_link(keys, [&](wexo_handle_t h, datalink_id_t id) {
			const wexo_status_t st = wexo_vxlan_set_flood(h, id, remotes.data(), remotes.size(),
			    add->get<bool>() ? B_TRUE : B_FALSE);
			return st == WEXO_STATUS_OK ? nuq::Reply{NUQ_E_SUCCESS, nuq::Json::object()}
			                            : datalink_error(st);
		});
		nuq::log::write(reply.status == NUQ_E_SUCCESS ? nuq::log::kInfo : nuq::log::kErr,
		    "flood list of link " + link + (add->get<bool>() ? " gains " : " set to ") + nuq::dump_line(*list) +
		        (reply.status == NUQ_E_SUCCESS ? "" : ": failed: " + nuq::dump_line(reply.value)));
		return reply;
	};
	return iface;
}

}  // namespace harl
