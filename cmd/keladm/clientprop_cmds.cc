// This host's client settings: set-clientprop, show-clientprop.
#include <cstdio>
#include <string>

#include "keladm.h"

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
	if (!out.configure({{"property"}, {"permission"}, {"value"}, {"default"}}, opts.fields,
	        opts.format))
		return kExitUsage;
	list_t list;
	int rc = kel_get_client_togprop(opts.operands.empty() ? nullptr : opts.operands[0], &list);
	if (rc != KEL_SUCCESS)
		return fail("cannot list client properties", rc);
	for (auto *p = static_cast<kel_togprop_t *>(list_head(&list)); p;
	     p = static_cast<kel_togprop_t *>(list_next(&list, p)))
		out.add({p->esp_propname, p->esp_perm, p->esp_propval, p->esp_defvalue});
	kel_free_togproplist(&list);
	out.print();
	return kExitOk;
}

}  // namespace keladm
