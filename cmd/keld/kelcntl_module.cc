// keld's controller module: "kelcntl.KEL" and "kelcntl.KELController" over the library's
// store operations. Every call has a store handle of its own for as long as it runs (lent
// by store_pool.h, so concurrent clients never share one; the store lock orders their
// writes), and a store failure travels back as the error record carrying the library's
// code unchanged.
#include <pwd.h>
#include <uuid/uuid.h>

#include <chrono>
#include <optional>
#include <string>

#include <kel/libkel.h>
#include <kel/sys/fabric.h>
#include "kelcntl.h"
#include "kelcntl_module.h"
#include "log.h"
#include "metrics.h"
#include "nuq_errors.h"
#include "owners.h"
#include "server.h"
#include "store_pool.h"
#include "uuid_text.h"

namespace kelcntl {
namespace {

using nuq::Json;

using Store = PooledStore;

// A binding, migration or release served, with how long the store took over it, for the
// controller's metrics.
class Timed {
public:
	explicit Timed(const char *what) : what_(what) {}
	void done(int rc, const char *what = nullptr) const
	{
		const std::string name = std::string("kel_controller_") + (what != nullptr ? what : what_);
		keld::metrics::Registry &r = keld::metrics::registry();
		r.count(name + "s_total", {{"outcome", rc == KEL_SUCCESS ? "success" : "failure"}});
		r.observe(name + "_duration_seconds", {},
		    std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count());
	}

private:
	const char *what_;
	std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

// Whether the binding `k` came back from started the port's move to `host`: the port
// stays its first host's until that one lets go.
bool moving_to(kel_t *k, const std::string &host)
{
	const auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports));
	return vp != nullptr && kel::prop_text(vp->evp_props, "kel:migrating_to") == host;
}

nuq::Reply kel_error(int rc)
{
	char msg[256];
	return nuq::Reply{NUQ_E_OBJECT, {{"ekele_err", rc}, {"ekele_errmsg", kel_errmsg(rc, msg, sizeof(msg))}}};
}

// The optional "counters" of an unbinding: four unsigned numbers, or absent (*counted
// false). Anything else is refused rather than half read.
bool read_counters(const Json &args, kel_vport_counters_t *out, bool *counted)
{
	const Json *c = nuq::member(args, "counters");
	*counted = c != nullptr && !c->is_null();
	if (!*counted)
		return true;
	const struct {
		const char *name;
		uint64_t *to;
	} fields[] = {{"ipackets", &out->evc_ipackets}, {"rbytes", &out->evc_rbytes}, {"opackets", &out->evc_opackets},
	    {"obytes", &out->evc_obytes}};
	for (const auto &f : fields) {
		const Json *n = nuq::member(*c, f.name);
		if (n == nullptr || !n->is_number_unsigned())
			return false;
		*f.to = n->get<uint64_t>();
	}
	return true;
}

// A database that cannot be reached now may hold the object: the caller is told why
// (and may ask again, of this controller or another), not that there is none.
void unreachable(const Store &store, int rc)
{
	if (rc != KEL_SUCCESS && store.in_database())
		throw nuq::LookupFailure{kel_error(rc)};
}

nuq::Reply bad_args()
{
	return nuq::Reply{NUQ_E_BADARGS, nullptr};
}

// One line in keld's log for a change it made or refused.
// For as long as it lives, the changes this thread makes are recorded as made for the
// user this connection came in as (through ssh: the login's user) and the host the call
// names.
class Caller {
public:
	explicit Caller(const std::string &host)
	{
		const std::optional<uid_t> uid = nuq::serving_uid();
		std::string user = uid ? "uid " + std::to_string(*uid) : "unknown";
		struct passwd pw, *found = nullptr;
		char buf[1024];
		if (uid && getpwuid_r(*uid, &pw, buf, sizeof(buf), &found) == 0 && found != nullptr)
			user = found->pw_name;
		kel_set_caller(user.c_str(), host.c_str());
	}
	~Caller() { kel_set_caller(nullptr, nullptr); }
	Caller(const Caller &) = delete;
	Caller &operator=(const Caller &) = delete;
};

void log_change(int rc, const std::string &what)
{
	char msg[256];
	if (rc == KEL_SUCCESS)
		nuq::log::write(nuq::log::kInfo, what);
	else
		nuq::log::write(nuq::log::kWarning, what + ": " + kel_errmsg(rc, msg, sizeof(msg)));
}

Json props(attrset_t *set)
{
	Json out = Json::array();
	for (attrset_entry_t *e = attrset_next_entry(set, nullptr); e != nullptr; e = attrset_next_entry(set, e)) {
		std::string value;
		char *s = nullptr;
		int32_t n = 0;
		if (attrset_entry_value_string(e, &s) == 0)
			value = s;
		else if (attrset_entry_value_int32(e, &n) == 0)
			value = std::to_string(n);
		out.push_back({{"epnv_name", attrset_entry_name(e)}, {"epnv_value", value}});
	}
	return out;
}

Json vport_json(kel_vport_t *v)
{
	return {{"evpi_name", v->evp_name}, {"evpi_uuid", kel::uuid_text(v->evp_uuid)},
	    {"evpi_kelname", v->evp_kelname}, {"evpi_keluuid", kel::uuid_text(v->evp_keluuid)},
	    {"evpi_tenantname", v->evp_tenantname},
	    {"evpi_status", v->evp_status == VPORT_STATUS_USED ? EVPS_USED : EVPS_FREE},
	    {"evpi_vnicname", v->evp_vnicname}, {"evpi_props", props(v->evp_props)},
	    {"evpi_hostname", v->evp_hostname}};
}

Json ipnet_json(kel_ipnet_t *n)
{
	return {{"eipi_name", n->ei_name}, {"eipi_uuid", kel::uuid_text(n->ei_uuid)}, {"eipi_kelname", n->ei_kelname},
	    {"eipi_keluuid", kel::uuid_text(n->ei_keluuid)}, {"eipi_tenantname", n->ei_tenantname},
	    {"eipi_props", props(n->ei_props)}, {"eipi_start", n->ei_sastr}, {"eipi_end", n->ei_eastr},
	    {"eipi_range", n->ei_availrange != nullptr ? n->ei_availrange : ""},
	    {"eipi_ipvers", n->ei_af == AF_INET6 ? EIPV_IPV6 : EIPV_IPV4}};
}

template <class T, class ToJson>
Json list_json(list_t *list, ToJson &&to_json)
{
	Json out = Json::array();
	for (auto *item = static_cast<T *>(list_head(list)); item != nullptr;
	     item = static_cast<T *>(list_next(list, item)))
		out.push_back(to_json(item));
	return out;
}

// Joins the hosts of the switch `keys` names again; a host it missed is logged. Best
// effort after a release: the next binding on the switch, or the operator, completes it.
int rejoin(kel_dbhandle_t h, const Json &keys)
{
	const std::string &tenant = keys.at("tenant").get_ref<const std::string &>();
	const std::string &name = keys.at("name").get_ref<const std::string &>();
	const int rc = kel_sync_vxlan_flood(h, tenant.c_str(), name.c_str());
	if (rc != KEL_SUCCESS)
		log_change(rc, "join the hosts of " + tenant + "/" + name);
	return rc;
}

Json implinfo_json(kel_t *k)
{
	const Json kel = {{"ekeli_name", k->kel_name}, {"ekeli_uuid", kel::uuid_text(k->kel_uuid)},
	    {"ekeli_tenantname", k->kel_tenantname}, {"ekeli_props", props(k->kel_props)},
	    {"ekeli_status", k->kel_status == KEL_STATUS_BUSY ? EKELS_BUSY : EKELS_IDLE},
	    {"ekeli_vports", list_json<kel_vport_t>(&k->kel_ports, vport_json)},
	    {"ekeli_ipnets", list_json<kel_ipnet_t>(&k->kel_ipnets, ipnet_json)}};
	return {{"ekelii_kelinfo", kel}, {"ekelii_uplink_port", k->kel_uport},
	    {"ekelii_vxlan_localaddr", k->kel_localaddr}, {"ekelii_vxlan_mgroup", k->kel_mgroup},
	    {"ekelii_vxlan_ipvers", k->kel_ipvers}};
}

}  // namespace

nuq::Interface kel_interface()
{
	nuq::Interface iface;
	iface.name = "kelcntl.KEL";
	iface.lookup = [](const Json &keys, bool strict, Json *found) {
		const std::string *name = nuq::text_member(keys, "name");
		const std::string *given = nuq::text_member(keys, "tenant");
		if (name == nullptr || (given == nullptr && (strict || nuq::member(keys, "tenant"))))
			return false;
		const std::string tenant = given != nullptr ? *given : KEL_DEFAULT_TENANT;
		Store store(KEL_DB_READONLY);
		unreachable(store, store.status());
		if (store.status() != KEL_SUCCESS)
			return false;
		const int rc = kel_db_find_kel(store.get(), tenant.c_str(), name->c_str());
		unreachable(store, rc == KEL_E_KEL_NOTFOUND ? KEL_SUCCESS : rc);
		if (rc != KEL_SUCCESS)
			return false;
		*found = {{"name", *name}, {"tenant", tenant}};
		return true;
	};
	iface.methods["assignVPort"] = [](const Json &keys, const Json &args) {
		const std::string *vnic = nuq::text_member(args, "vnicname");
		const std::string *host = nuq::text_member(args, "hostname");
		const char *vport = nullptr, *extra = nullptr;
		if (vnic == nullptr || host == nullptr || !nuq::optional_text(args, "vportname", &vport) ||
		    !nuq::optional_text(args, "extra", &extra))
			return bad_args();
		const std::string &tenant = keys.at("tenant").get_ref<const std::string &>();
		const std::string &name = keys.at("name").get_ref<const std::string &>();
		Store store(KEL_DB_READWRITE);
		if (store.status() != KEL_SUCCESS)
			return kel_error(store.status());
		kel_t *raw = nullptr;
		const Caller caller(*host);
		const Timed timed("bind");
		const int rc = kel_db_assign_vport(store.get(), tenant.c_str(), name.c_str(), vport, vnic->c_str(),
		    host->c_str(), extra, &raw);
		const kel::KelPtr kel(raw);
		timed.done(rc, rc == KEL_SUCCESS && moving_to(kel.get(), *host) ? "migration" : nullptr);
		log_change(rc,
		    "bind " + tenant + "/" + name + "/" + (vport != nullptr ? vport : "(system port)") + " to VNIC " +
		        *vnic + " on host " + *host);
		if (rc != KEL_SUCCESS)
			return kel_error(rc);
		return nuq::Reply{NUQ_E_SUCCESS, implinfo_json(kel.get())};
	};
	// The port is found by its VNIC and host (or the filter in `extra`), not by the
	// switch it was looked up on: that is how the node names what it is releasing. The
	// switch's hosts are then joined again here, where the store is at hand, rather than
	// at a second request of the node's: for a switch that needs no flood list that costs
	// two reads of the store instead of an exchange.
	iface.methods["unAssignVPort"] = [](const Json &keys, const Json &args) {
		const std::string *vnic = nuq::text_member(args, "vnicname");
		const std::string *host = nuq::text_member(args, "hostname");
		const char *extra = nullptr;
		kel_vport_counters_t last{};
		bool counted = false;
		if (vnic == nullptr || host == nullptr || !nuq::optional_text(args, "extra", &extra) ||
		    !read_counters(args, &last, &counted))
			return bad_args();
		Store store(KEL_DB_READWRITE);
		if (store.status() != KEL_SUCCESS)
			return kel_error(store.status());
		const Caller caller(*host);
		const Timed timed("release");
		const int rc = kel_db_unassign_vport_counted(store.get(), vnic->c_str(), host->c_str(), extra,
		    counted ? &last : nullptr);
		timed.done(rc);
		log_change(rc, "unbind VNIC " + *vnic + " on host " + *host);
		if (rc != KEL_SUCCESS)
			return kel_error(rc);
		rejoin(store.get(), keys);
		return nuq::Reply{NUQ_E_SUCCESS, Json::object()};
	};
	// A node asks for this once its VXLAN link is made, and after releasing a port: the
	// kel's hosts are joined again from what the store says now.
	iface.methods["syncFlood"] = [](const Json &keys, const Json &) {
		Store store(KEL_DB_READONLY);
		if (store.status() != KEL_SUCCESS)
			return kel_error(store.status());
		const int rc = rejoin(store.get(), keys);
		return rc == KEL_SUCCESS ? nuq::Reply{NUQ_E_SUCCESS, Json::object()} : kel_error(rc);
	};
	return iface;
}

nuq::Interface controller_interface()
{
	nuq::Interface iface;
	iface.name = "kelcntl.KELController";
	// The one object exists where the store does.
	iface.lookup = [](const Json &, bool, Json *found) {
		Store store(KEL_DB_READONLY);
		unreachable(store, store.status());
		if (store.status() != KEL_SUCCESS)
			return false;
		*found = Json::object();
		return true;
	};
	// No port matching is an empty list: the node treats "nothing bound" as an answer,
	// not as a failure.
	iface.methods["getVPortInfo"] = [](const Json &, const Json &args) {
		const std::string *filter = nuq::text_member(args, "filter");
		if (filter == nullptr)
			return bad_args();
		Store store(KEL_DB_READONLY);
		if (store.status() != KEL_SUCCESS)
			return kel_error(store.status());
		kel::RecordList<kel_vport_t> ports;
		const int rc = ports.read(
		    [&](list_t *l) { return kel_db_get_filtered_vportlist(store.get(), filter->c_str(), l, 0); });
		if (rc == KEL_E_VPORT_NOTFOUND)
			return nuq::Reply{NUQ_E_SUCCESS, Json::array()};
		if (rc != KEL_SUCCESS)
			return kel_error(rc);
		nuq::Reply reply{NUQ_E_SUCCESS, list_json<kel_vport_t>(ports.get(), vport_json)};
		return reply;
	};
	return iface;
}

}  // namespace kelcntl
