// verify: what the hosts have in force against what the store says, and --repair.
#include <cstdio>
#include <string>

#include "keladm.h"
#include "owners.h"

namespace keladm {

int verify(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	if (opts.operands.size() > 1)
		return usage_error(cmd, "verify takes at most one KEL or KEL/VPORT");
	// A kel, a port of one, or with neither every bound port (of the tenant, or -T all).
	std::string kel, vport;
	if (!opts.operands.empty()) {
		char k[KEL_NAME_LEN], v[KEL_NAME_LEN];
		const std::string text = opts.operands[0];
		const bool compound = text.find('/') != std::string::npos;
		if (!kel_parse_kelvportname(compound ? text.c_str() : (text + "/").c_str(), k, v) || *k == '\0')
			return usage_error(cmd, "'" + text + "' is not KEL or KEL/VPORT");
		kel = k;
		vport = v;
	}
	char filter[KEL_FILTER_LEN];
	if (int rc = kel_create_attrstr(filter, sizeof(filter), nullptr, 4, "tenant", listed_tenant(opts).c_str(),
	        "kel", kel.c_str(), "vport", vport.c_str(), "host", opts.host != nullptr ? opts.host : "");
	    rc != KEL_SUCCESS)
		return fail("cannot verify", rc);
	kel::StoreHandle store;
	// Without --repair nothing changes; with it, a port bound to a VNIC its host does not
	// have is released.
	if (open_store(&store, opts.repair) != KEL_SUCCESS)
		return kExitFailed;
	kel::RecordList<kel_drift_t> drifts;
	const int rc = drifts.read(
	    [&](list_t *l) { return kel_db_verify(store.get(), filter, opts.repair ? KEL_VERIFY_REPAIR : 0, l); });
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts, "cannot verify", rc, kel, vport.empty() ? nullptr : "vport", vport);
	bool left = false;
	for (kel_drift_t *d : drifts) {
		out.add({d->edr_object, d->edr_host, d->edr_what, d->edr_store, d->edr_found,
		    d->edr_repaired ? "yes" : "no"});
		left = left || !d->edr_repaired;
	}
	// No difference prints nothing, as a sound store prints nothing for check-store; JSON
	// still says it with an empty array.
	if (!drifts.empty() || opts.format == Format::Json)
		out.print();
	// Without --repair every difference counts; with it, those it could not put right.
	return left ? kExitFailed : kExitOk;
}

}  // namespace keladm
