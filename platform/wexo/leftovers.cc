// What the fabric made on this host and nothing uses any more: what a command killed
// half way, or a guest's namespace deleted by hand, leaves. A VNIC recorded (its port
// bound) whose VNIC is gone; a kel's address responder with no guest of the kel left; a
// link made on demand with no VNIC over it, or a record of one that is gone; the filters
// of a VNIC (its objects in the shared table, or a table of its own from before) or the
// guard table of a lower link that is gone. Listed for the controller's drift check, and removed one
// by one when it repairs, each checked again under the lock it is made under.
#include <net/if.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vlan.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "c_boundary.h"
#include "fabric_links.h"
#include "kelnet.h"
#include "link_filter.h"
#include "link_internal.h"
#include "link_lock.h"
#include "link_settings.h"
#include "nft.h"
#include "wexo.h"

namespace {

namespace filter = wexo::filter;

struct Leftover {
	std::string kind, name, what;
	long age = 0;
};

// A handle on the host's namespace (the caller's), closed when it goes.
struct Host {
	wexo_handle_t h = nullptr;
	wexo_status_t st = wexo_open(&h);
	~Host() { wexo_close(h); }
};

// Why the VNIC recorded as `v` is no VNIC of the fabric now ("" when it is).
std::string vnic_gone(const wexo::fabric::Vnic &v)
{
	char link[IFNAMSIZ], ns[256];
	if (!dlparse_zonelinkname(v.name.c_str(), link, sizeof(link), ns, sizeof(ns)))
		return "its name is no link's";
	wexo_handle_t h = nullptr;
	if (wexo_open_netns(ns, &h) != WEXO_STATUS_OK)
		return std::string("its namespace ") + ns + " is gone";
	datalink_id_t id = DATALINK_INVALID_LINKID;
	std::string why;
	if (wexo_name2info(h, link, &id, nullptr) != WEXO_STATUS_OK)
		why = "the VNIC is gone";
	else if (wexo_link_owned(h, id, v.name.c_str()) != WEXO_STATUS_OK)
		why = "a link the fabric did not make has its name";
	wexo_close(h);
	return why;
}

// Whether the namespace of the VNIC recorded as `v` is gone (it can never come back).
bool namespace_gone(const wexo::fabric::Vnic &v)
{
	char link[IFNAMSIZ], ns[256];
	if (!dlparse_zonelinkname(v.name.c_str(), link, sizeof(link), ns, sizeof(ns)) || *ns == '\0')
		return false;
	wexo_handle_t h = nullptr;
	if (wexo_open_netns(ns, &h) != WEXO_STATUS_OK)
		return true;
	wexo_close(h);
	return false;
}

// The address responders (their records' names) of the kels none of whose guests on this
// host is alive: what a guest's namespace deleted by hand, then its port reset, leaves.
// A responder is made after its first guest is recorded, so one being made has a guest.
std::vector<std::string> idle_responders(time_t grace)
{
	std::vector<wexo::fabric::Vnic> all = wexo::fabric::vnics();
	std::set<std::string> served;
	for (const wexo::fabric::Vnic &v : all)
		if (v.lease && !v.lease->endpoint && wexo::fabric::alive(v, grace))
			served.insert(v.lease->kel);
	std::vector<std::string> out;
	for (const wexo::fabric::Vnic &v : all)
		if (v.lease && v.lease->endpoint && served.count(v.lease->kel) == 0)
			out.push_back(v.name);
	return out;
}

// Why on-demand link `name`, recorded with `index`, is left over ("" when it is not).
std::string link_unused(wexo_handle_t host, const std::string &name, int index)
{
	datalink_id_t id = DATALINK_INVALID_LINKID;
	if (wexo_name2info(host, name.c_str(), &id, nullptr) != WEXO_STATUS_OK)
		return "recorded, but gone";
	if (static_cast<int>(id) != index)
		return "recorded, but another link has its name now";
	bool busy = false;
	if (wexo::fabric::in_use(name) || wexo_has_uppers(host, id, &busy) != WEXO_STATUS_OK || busy)
		return "";
	return "made for VNICs, with none over it";
}

// The links whose guard the records keep: those VNICs are recorded over, and the uplink
// under each such VLAN link.
std::set<std::string> guarded(wexo_handle_t host)
{
	std::set<std::string> out;
	for (const wexo::fabric::Vnic &v : wexo::fabric::vnics()) {
		out.insert(v.lower);
		datalink_id_t id = DATALINK_INVALID_LINKID;
		struct rtnl_link *link = nullptr;
		std::string under;
		if (wexo_name2info(host, v.lower.c_str(), &id, nullptr) == WEXO_STATUS_OK &&
		    wexo_get_link(host, id, &link) == WEXO_STATUS_OK) {
			if (rtnl_link_is_vlan(link) && wexo_host_lower(host, link, nullptr, &under) == WEXO_STATUS_OK)
				out.insert(under);
			rtnl_link_put(link);
		}
	}
	return out;
}

// Why the filters of link `key` ("NS/LINK", or a link of the host's namespace) are left
// over ("" when they are not).
std::string filters_unused(const std::string &key)
{
	char link[IFNAMSIZ], ns[256];
	if (!dlparse_zonelinkname(key.c_str(), link, sizeof(link), ns, sizeof(ns)))
		return "";
	wexo_handle_t h = nullptr;
	if (wexo_open_netns(ns, &h) != WEXO_STATUS_OK)
		return "the filters of " + key + ", whose namespace is gone";
	const bool there = wexo_name2info(h, link, nullptr, nullptr) == WEXO_STATUS_OK;
	wexo_close(h);
	return there ? "" : "the filters of " + key + ", which is gone";
}

// Why the table `name` of the host's namespace is left over ("" when it is not, or is not
// one of the fabric's names).
std::string table_unused(wexo_handle_t host, const std::string &name, const std::set<std::string> &guards)
{
	const std::string lower_prefix = filter::lower_table(""), link_prefix = filter::legacy_table("");
	if (name.rfind(lower_prefix, 0) == 0) {
		const std::string link = name.substr(lower_prefix.size());
		if (wexo_name2info(host, link.c_str(), nullptr, nullptr) != WEXO_STATUS_OK)
			return "the guard of " + link + ", which is gone";
		return guards.count(link) != 0 ? "" : "the guard of " + link + ", with no VNIC recorded over it";
	}
	if (const std::string sealed_prefix = filter::sealed_table(""); name.rfind(sealed_prefix, 0) == 0) {
		const std::string link = name.substr(sealed_prefix.size());
		return wexo_name2info(host, link.c_str(), nullptr, nullptr) == WEXO_STATUS_OK
		    ? ""
		    : "the seal of the address responder's link " + link + ", which is gone";
	}
	// A link's own table, as links had before they shared one.
	return name.rfind(link_prefix, 0) == 0 ? filters_unused(name.substr(link_prefix.size())) : "";
}

// The links with filters in the shared table of the host's namespace.
std::vector<std::string> filtered_links()
{
	nlohmann::json listing;
	if (wexo::nft::list_table(-1, filter::kLinkTable, &listing) != WEXO_STATUS_OK)
		return {};
	return filter::keys(listing);
}

// The netdev tables of the host's namespace.
std::vector<std::string> tables()
{
	std::vector<std::string> out;
	nlohmann::json listing;
	if (wexo::nft::list(-1, {{"nftables", {{{"list", {{"tables", {{"family", "netdev"}}}}}}}}}, &listing) !=
	    WEXO_STATUS_OK)
		return out;
	for (const nlohmann::json &o : listing.value("nftables", nlohmann::json::array()))
		if (o.contains("table") && o["table"].value("family", "") == "netdev" && o["table"]["name"].is_string())
			out.push_back(o["table"]["name"].get<std::string>());
	return out;
}

std::vector<Leftover> find(wexo_handle_t host, time_t grace)
{
	std::vector<Leftover> out;
	const time_t now = std::time(nullptr);
	for (const wexo::fabric::Vnic &v : wexo::fabric::vnics()) {
		// A port bound a moment ago has its VNIC still being made, unless its namespace
		// is gone: then it is as old as any leftover.
		const bool final = namespace_gone(v);
		if (now - v.recorded < grace && !final)
			continue;
		if (const std::string why = vnic_gone(v); !why.empty())
			out.push_back({"vnic", v.name, "bound over " + v.lower + ", but " + why,
			    final ? std::max<long>(now - v.recorded, WEXO_LEFTOVER_GRACE_SECONDS) : now - v.recorded});
	}
	for (const std::string &name : idle_responders(WEXO_LEFTOVER_GRACE_SECONDS))
		out.push_back({"responder", name, "the address responder of a kel with no guest left on this host"});
	for (const auto &[name, index] : wexo::fabric::lowers())
		if (const std::string why = link_unused(host, name, index); !why.empty())
			out.push_back({"link", name, why});
	const std::set<std::string> guards = guarded(host);
	for (const std::string &t : tables())
		if (const std::string why = table_unused(host, t, guards); !why.empty())
			out.push_back({"table", t, why});
	for (const std::string &key : filtered_links())
		if (const std::string why = filters_unused(key); !why.empty())
			out.push_back({"filters", key, why});
	return out;
}

// Removes an on-demand link that no VNIC uses, or forgets its record when it is gone.
wexo_status_t remove_link(wexo_handle_t host, const std::string &name)
{
	const auto index = wexo::fabric::lower(name);
	if (!index)
		return WEXO_STATUS_OK;
	datalink_id_t id = DATALINK_INVALID_LINKID;
	datalink_class_t cls{};
	if (wexo_name2info(host, name.c_str(), &id, &cls) != WEXO_STATUS_OK || static_cast<int>(id) != *index) {
		wexo::LinkLock lock(name);
		wexo::fabric::forget_lower(name);  // never a link of that name made otherwise
		return WEXO_STATUS_OK;
	}
	return wexo_ondemand_delete(host, id, WEXO_OPT_ACTIVE, cls);
}

wexo_status_t remove_vnic(wexo_handle_t host, const std::string &name)
{
	const auto v = wexo::fabric::vnic(name);
	if (!v)
		return WEXO_STATUS_OK;
	{
		wexo::LinkLock lock(v->lower);
		if (!lock.held())
			return WEXO_STATUS_DENIED;
		// Asked again under the lock its maker records it under: made again since, or
		// still being made, it is no leftover.
		const auto now = wexo::fabric::vnic(name);
		if (!now || now->lower != v->lower || wexo::fabric::alive(*now, WEXO_LEFTOVER_GRACE_SECONDS))
			return WEXO_STATUS_LINKBUSY;
		wexo::fabric::forget_vnic(name);
		const size_t slash = name.find('/');
		const std::string ns = slash == std::string::npos ? "" : name.substr(0, slash);
		const std::string link = name.substr(slash == std::string::npos ? 0 : slash + 1);
		(void)wexo::nft::run(-1, filter::removal_of(filter::link_key(ns, link)));
		wexo::settings::forget(name);
		if (const wexo_status_t st = wexo_lower_guard_sync(host, v->lower); st != WEXO_STATUS_OK)
			return st;
	}
	// Its lower link goes with it when it was the link's last user.
	const wexo_status_t st = remove_link(host, v->lower);
	return st == WEXO_STATUS_LINKBUSY ? WEXO_STATUS_OK : st;
}

wexo_status_t remove_table(wexo_handle_t host, const std::string &name)
{
	if (table_unused(host, name, guarded(host)).empty())
		return WEXO_STATUS_OK;
	const std::string lower_prefix = filter::lower_table("");
	if (name.rfind(lower_prefix, 0) == 0) {
		const std::string link = name.substr(lower_prefix.size());
		wexo::LinkLock lock(link);
		return wexo_lower_guard_sync(host, link);
	}
	return wexo::nft::run(-1, filter::removal(name));
}

}  // namespace

bool wexo::fabric::alive(const Vnic &v, time_t grace)
{
	if (std::time(nullptr) - v.recorded < grace && !namespace_gone(v))
		return true;
	return vnic_gone(v).empty();
}

extern "C" {

wexo_status_t wexo_fabric_leftovers(long grace, wexo_leftover_t **list, size_t *count) noexcept
{
	*list = nullptr;
	*count = 0;
	return kel::wexo_boundary([&]() -> wexo_status_t {
		Host host;
		if (host.st != WEXO_STATUS_OK)
			return host.st;
		const std::vector<Leftover> found = find(host.h, grace);
		if (found.empty())
			return WEXO_STATUS_OK;
		auto *out = static_cast<wexo_leftover_t *>(std::calloc(found.size(), sizeof(wexo_leftover_t)));
		if (out == nullptr)
			return WEXO_STATUS_NOMEM;
		for (size_t i = 0; i < found.size(); i++) {
			std::snprintf(out[i].wl_kind, sizeof(out[i].wl_kind), "%s", found[i].kind.c_str());
			std::snprintf(out[i].wl_name, sizeof(out[i].wl_name), "%s", found[i].name.c_str());
			std::snprintf(out[i].wl_what, sizeof(out[i].wl_what), "%s", found[i].what.c_str());
			out[i].wl_age = found[i].age;
		}
		*list = out;
		*count = found.size();
		return WEXO_STATUS_OK;
	});
}

wexo_status_t wexo_fabric_remove_leftover(const char *kind, const char *name) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (kind == nullptr || name == nullptr)
			return WEXO_STATUS_BADARG;
		Host host;
		if (host.st != WEXO_STATUS_OK)
			return host.st;
		if (std::strcmp(kind, "vnic") == 0)
			return remove_vnic(host.h, name);
		if (std::strcmp(kind, "link") == 0)
			return remove_link(host.h, name);
		if (std::strcmp(kind, "table") == 0)
			return remove_table(host.h, name);
		if (std::strcmp(kind, "responder") == 0)
			return WEXO_STATUS_NOTSUP;  // its port is the controller's: the node side removes it
		if (std::strcmp(kind, "filters") == 0)
			return filters_unused(name).empty() ? WEXO_STATUS_OK
			                                    : wexo::nft::run(-1, filter::removal_of(name));
		return WEXO_STATUS_BADARG;
	});
}

}  // extern "C"
