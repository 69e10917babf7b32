// This host's client settings: set-clientprop, show-clientprop.
#include <cstdio>
#include <string>

#include "keladm.h"
#include "owners.h"

namespace keladm {

int set_clientprop(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 1)
		return usage_error(cmd, "set-clientprop takes one name=value");
	int rc = kel_set_client_togprop(opts.operands[0]);
	if (rc != KEL_SUCCESS)
		return fail(std::string("cannot set '") + opts.operands[0] + "'", rc);
	return kExitOk;
}

int show_clientprop(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() > 1)
		return usage_error(cmd, "show-clientprop takes one list of names");
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	kel::RecordList<kel_togprop_t> settings;
	int rc = settings.read(
	    [&](list_t *l) { return kel_get_client_togprop(opts.operands.empty() ? nullptr : opts.operands[0], l); });
	if (rc != KEL_SUCCESS)
		return fail("cannot list client properties", rc);
	for (kel_togprop_t *p : settings)
		out.add({p->esp_propname, p->esp_perm, p->esp_propval, p->esp_defvalue});
	out.print();
	return kExitOk;
}

}  // namespace keladm
