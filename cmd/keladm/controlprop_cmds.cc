// Controller properties: set-controlprop, show-controlprop.
#include <cstdio>
#include <cstring>
#include <string>

#include "keladm.h"
#include "owners.h"

namespace keladm {

int set_controlprop(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 1)
		return usage_error(cmd, "set-controlprop takes one name=value[,attribute=value...]");
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	const std::string what = std::string("'") + opts.operands[0] + "'" +
	    (opts.host ? std::string(" for ") + opts.host : "");
	int rc = kel_db_set_ctrlprop(store.get(), opts.operands[0], opts.host);
	// These two come back after the change was made.
	if (rc == KEL_E_RANGE_PARTIAL || rc == KEL_E_RANGE_MANUAL) {
		warn("set " + what, rc);
		return kExitOk;
	}
	if (rc != KEL_SUCCESS) {
		fail("cannot set " + what, rc);
		if (rc == KEL_E_RANGE_INUSE && opts.host == nullptr)
			say_outside_ids(store.get(), opts.operands[0]);
		// Beside uplink-port, the ranges are the uplink's share of the fabric's, not the
		// fabric's own: an easy misreading of one line that sets several things.
		const std::string setting = opts.operands[0];
		const int reason = KEL_ERR_REASON(rc);
		if ((reason == KEL_E_NO_VLANID || reason == KEL_E_NO_VNI || reason == KEL_E_RANGE_NOT_SUBSET) &&
		    setting.find("uplink-port=") != std::string::npos &&
		    (setting.find("vlan-range=") != std::string::npos ||
		        setting.find("vxlan-range=") != std::string::npos))
			std::fprintf(stderr,
			    "keladm: beside uplink-port, vlan-range and vxlan-range are the IDs that uplink carries, taken "
			    "from the fabric's ranges; set those first, one a command (keladm set-controlprop "
			    "vlan-range=RANGE)\n");
		return kExitFailed;
	}
	return kExitOk;
}

int show_controlprop(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() > 1)
		return usage_error(cmd, "show-controlprop takes one list of names");
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	kel::StoreHandle store;
	if (open_store(&store, false) != KEL_SUCCESS)
		return kExitFailed;
	kel::RecordList<kel_ctrlprop_t> rows;
	int rc = rows.read([&](list_t *l) {
		return kel_db_get_ctrlprop(store.get(), opts.operands.empty() ? nullptr : opts.operands[0], opts.host,
		    l);
	});
	if (rc != KEL_SUCCESS)
		return fail("cannot list controller properties", rc);
	auto text = [](const char *s) { return std::string(s != nullptr ? s : ""); };
	// Whether an uplink carries flat kels is yes or no; other properties have no say.
	auto flat = [](const kel_ctrlprop_t *p) -> std::string {
		if (p->ecp_flatrange != nullptr && *p->ecp_flatrange != '\0')
			return "yes";
		return std::strcmp(p->ecp_propname, "uplink-port") == 0 ? "no" : "";
	};
	for (kel_ctrlprop_t *p : rows)
		out.add({p->ecp_propname, p->ecp_host, p->ecp_perm, text(p->ecp_propval), p->ecp_defvalue,
		    text(p->ecp_vlanrange), text(p->ecp_vxlanrange), flat(p)});
	out.print();
	return kExitOk;
}

}  // namespace keladm
