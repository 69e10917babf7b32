// Ports: add-vport, remove-vport, reset-vport, show-vport. A port is named with its switch
// as KEL/VPORT.
#include <uuid/uuid.h>

#include <cstdio>
#include <string>

#include "keladm.h"
#include "owners.h"

namespace keladm {
namespace {

// The port `name` of `kel` as it is in the store, into `out`.
int read_vport(kel_dbhandle_t h, const Options &opts, const std::string &kel, const std::string &name,
    kel::RecordList<kel_vport_t> *out)
{
	char filter[KEL_FILTER_LEN];
	const int rc = kel_create_attrstr(filter, sizeof(filter), nullptr, 3, "tenant", opts.tenant.c_str(), "kel",
	    kel.c_str(), "vport", name.c_str());
	return rc != KEL_SUCCESS ? rc
	                         : out->read([&](list_t *l) { return kel_db_get_filtered_vportlist(h, filter, l, 0); });
}

// Where a bound port is, as the lines about it say it: "VNIC vn0 on host h1".
std::string where(const kel_vport_t *vp)
{
	return std::string("VNIC ") + vp->evp_vnicname + " on host " + vp->evp_hostname;
}

// remove-vport and reset-vport: one KEL/VPORT, -f to go on although the port is bound.
// What the port was before is read first, so that a refusal can say where it is bound,
// and a reset what it did.
int change(const Subcommand &cmd, const Options &opts, bool reset)
{
	Member m;
	if (!one_member(cmd, opts, kel_parse_kelvportname, "VPORT", &m))
		return kExitUsage;
	const std::string &kel = m.kel, &vport = m.name, object = kel + "/" + vport;
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	kel::RecordList<kel_vport_t> before;
	const kel_vport_t *was = read_vport(store.get(), opts, kel, vport, &before) == KEL_SUCCESS &&
	        before.begin() != before.end() && (*before.begin())->evp_status == VPORT_STATUS_USED
	    ? *before.begin()
	    : nullptr;
	// Without -f a reset asks the port's host whether its VNIC is still there, and frees
	// the port when the host does not answer: find out first whether it will.
	bool host_answers = true;
	if (reset && was != nullptr && !opts.force) {
		nuq_conn_t *conn = nullptr;
		host_answers = kel_nuq_connection_to_kelnode(store.get(), was->evp_hostname, &conn) == KEL_SUCCESS;
		nuq_disconnect(conn);
	}
	const char *force = opts.force ? "force=yes" : nullptr;
	const int rc = reset
	    ? kel_db_reset_vport(store.get(), opts.tenant.c_str(), kel.c_str(), vport.c_str(), force, 0)
	    : kel_db_remove_vport(store.get(), opts.tenant.c_str(), kel.c_str(), vport.c_str(), force, 0);
	if (opts.if_exists && (rc == KEL_E_VPORT_NOTFOUND || rc == KEL_E_KEL_NOTFOUND))
		return kExitOk;
	if (rc == KEL_E_VPORT_INUSE && was != nullptr) {
		fail(std::string("cannot ") + (reset ? "reset" : "remove") + " vport '" + object + "'", rc);
		if (reset)
			std::fprintf(stderr,
			    "keladm: its %s is still there: delete it there (keladm delete-vnic %s), "
			    "or give -f to free the port all the same\n",
			    where(was).c_str(), was->evp_vnicname);
		else
			std::fprintf(stderr,
			    "keladm: it is bound to %s: delete the VNIC there (keladm delete-vnic %s) "
			    "or give -f; if the VNIC is gone, keladm reset-vport %s frees the port\n",
			    where(was).c_str(), was->evp_vnicname, object.c_str());
		return kExitFailed;
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts,
		    std::string("cannot ") + (reset ? "reset" : "remove") + " vport '" + object + "'", rc, kel, "vport",
		    vport);
	if (reset && was == nullptr)
		std::printf("vport %s was free already\n", object.c_str());
	else if (reset && opts.force)
		std::printf("freed vport %s, bound to %s, without asking the host (-f)\n", object.c_str(),
		    where(was).c_str());
	else if (reset && host_answers)
		std::printf("freed vport %s: %s is gone\n", object.c_str(), where(was).c_str());
	else if (reset)
		warn("freed vport '" + object + "' without asking host " + was->evp_hostname +
		        ", which did not answer; if VNIC " + was->evp_vnicname + " is still there, delete it there",
		    KEL_E_HOST_CONNECT);
	return kExitOk;
}

// Field `field` of kVportFields for port `vp`, whose counters are `counters` (NULL: not
// known).
std::string vport_field(const kel_vport_t *vp, size_t field, const kel_vport_counters_t *counters = nullptr)
{
	switch (field) {
	case 0: return vp->evp_name;
	case 1: return vp->evp_kelname;
	case 2: return vp->evp_tenantname;
	case 3: return vp->evp_status == VPORT_STATUS_USED ? "bound" : "free";
	case 4: return vp->evp_hostname;
	case 5: return vp->evp_vnicname;
	case 6: return prop(vp->evp_props, "ipaddr");
	case 7: return prop(vp->evp_props, "macaddr");
	case 8: {
		char uuid[KEL_UUID_TEXT_LEN];
		uuid_unparse_lower(vp->evp_uuid, uuid);
		return uuid;
	}
	default: {
		if (counters == nullptr)
			return "";
		const uint64_t values[] = {counters->evc_ipackets, counters->evc_rbytes, counters->evc_opackets,
		    counters->evc_obytes};
		return std::to_string(values[field - 9]);
	}
	}
}

// show-vport with counters: the ports are read first, then each one's counters are asked
// of its host with the store released, so that no host's answer holds up a writer.
int show_counted_vports(kel_dbhandle_t h, const char *filter, Output *out)
{
	kel::RecordList<kel_vport_t> ports;
	if (int rc = ports.read([&](list_t *l) { return kel_db_get_filtered_vportlist(h, filter, l, 0); });
	    rc != KEL_SUCCESS)
		return rc;
	std::string silent;
	for (kel_vport_t *vp : ports) {
		kel_vport_counters_t c{};
		const int rc = kel_db_get_vport_counters(h, vp->evp_tenantname, vp->evp_kelname, vp->evp_name, &c);
		if (rc != KEL_SUCCESS)
			silent += (silent.empty() ? "" : ", ") + std::string(vp->evp_kelname) + "/" + vp->evp_name +
			    " (" + message(rc) + ")";
		out->add_with([&](size_t f) { return vport_field(vp, f, rc == KEL_SUCCESS ? &c : nullptr); });
	}
	if (!silent.empty())
		std::fprintf(stderr, "keladm: warning: no counters for %s\n", silent.c_str());
	return KEL_SUCCESS;
}

}  // namespace

int add_vport(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (opts.echo && !out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	Member m;
	if (!one_member(cmd, opts, kel_parse_kelvportname, "VPORT", &m))
		return kExitUsage;
	const std::string &kel = m.kel, &name = m.name;
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	kel_vport_t *made = nullptr;
	const int rc = kel_db_add_vport(store.get(), opts.tenant.c_str(), kel.c_str(), name.c_str(),
	    opts.props.empty() ? nullptr : opts.props.c_str(), &made, KEL_NAME_DASH_OK);
	kel::Owned<kel_vport_t, kel_free_vport> vp(made);
	kel::RecordList<kel_vport_t> there;
	if (rc == KEL_E_EXISTS && opts.may_exist && read_vport(store.get(), opts, kel, name, &there) == KEL_SUCCESS) {
		// The one there is what a script goes on with.
		if (opts.echo) {
			out.add_with([&](size_t f) { return vport_field(*there.begin(), f); });
			out.print();
		}
		return kExitOk;
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts, "cannot add vport '" + kel + "/" + name + "'", rc, kel, "vport",
		    name);
	if (opts.echo) {
		out.add_with([&](size_t f) { return vport_field(vp.get(), f); });
		out.print();
	} else {
		std::printf("added vport %s/%s (%s, %s)\n", kel.c_str(), vp->evp_name,
		    prop(vp->evp_props, "ipaddr").c_str(), prop(vp->evp_props, "macaddr").c_str());
	}
	return kExitOk;
}

int remove_vport(const Subcommand &cmd, const Options &opts)
{
	return change(cmd, opts, false);
}

int reset_vport(const Subcommand &cmd, const Options &opts)
{
	return change(cmd, opts, true);
}

int show_vport(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	char kel[KEL_NAME_LEN], name[KEL_NAME_LEN];
	if (!member_selection(cmd, opts, kel_parse_kelvportname, "VPORT", kel, name))
		return kExitUsage;
	char filter[KEL_FILTER_LEN];
	// Pairs with an empty value are left out: no KEL or VPORT selects more.
	int rc = kel_create_attrstr(filter, sizeof(filter), nullptr, 3, "tenant", listed_tenant(opts).c_str(), "kel",
	    kel, "vport", name);
	if (rc != KEL_SUCCESS)
		return fail("cannot list vports", rc);
	kel::StoreHandle store;
	if (open_store(&store, false) != KEL_SUCCESS)
		return kExitFailed;
	if (out.shows("ipackets") || out.shows("rbytes") || out.shows("opackets") || out.shows("obytes")) {
		rc = show_counted_vports(store.get(), filter, &out);
		if (rc == KEL_E_VPORT_NOTFOUND && opts.operands.empty())
			rc = KEL_SUCCESS;
		if (rc != KEL_SUCCESS)
			return fail_here(store.get(), opts, "cannot list vports", rc, kel, "vport", name);
		out.print();
		return kExitOk;
	}
	// One port at a time into the output's text; the addresses are read from the
	// properties only when a column shows one.
	const uint32_t flags = out.shows("ipaddr") || out.shows("macaddr") ? 0 : KEL_WALK_NO_PROPS;
	auto each = [](const kel_vport_t *vp, void *arg) {
		static_cast<Output *>(arg)->add_with([vp](size_t f) { return vport_field(vp, f); });
		return 0;
	};
	rc = kel_db_walk_vports(store.get(), filter, flags, each, &out);
	if (rc == KEL_E_VPORT_NOTFOUND && opts.operands.empty()) {
		if (unknown_tenant(store.get(), opts))
			return kExitFailed;
		out.print();
		return kExitOk;
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts, "cannot list vports", rc, kel, "vport", name);
	out.print();
	return kExitOk;
}

}  // namespace keladm
