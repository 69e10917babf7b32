// What a refused shrink leaves out: after a pool or an ID range is refused because values
// in use would fall outside it, a line naming those values and who holds them.
#include <cstdio>
#include <string>

#include "keladm.h"
#include "owners.h"
#include "value_ranges.h"

namespace keladm {
namespace {

// At most this many values are named; the rest are counted.
constexpr size_t kNamed = 10;

struct Outside {
	explicit Outside(const ValueRanges *r) : range(r) {}

	const ValueRanges *range;
	std::string list;
	size_t count = 0;

	void add(const std::string &value, const std::string &holder)
	{
		if (range->contains(value))
			return;
		if (count++ < kNamed)
			list += (list.empty() ? "" : ", ") + value + " (" + holder + ")";
	}
	void say(const char *what, const std::string &text) const
	{
		if (count == 0)
			return;
		std::fprintf(stderr, "keladm: %s in use outside %s: %s%s\n", what, text.c_str(), list.c_str(),
		    count > kNamed ? (", and " + std::to_string(count - kNamed) + " more").c_str() : "");
	}
};

}  // namespace

void say_outside_pool(kel_dbhandle_t h, const Options &opts, const std::string &kel, const std::string &pool)
{
	ValueRanges range;
	if (!range.parse(pool))
		return;
	char filter[KEL_FILTER_LEN];
	if (kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "tenant", opts.tenant.c_str(), "kel", kel.c_str()) !=
	    KEL_SUCCESS)
		return;
	Outside out(&range);
	auto each = [](const kel_vport_t *vp, void *arg) {
		const std::string ip = prop(vp->evp_props, "ipaddr");
		if (!ip.empty())
			static_cast<Outside *>(arg)->add(ip.substr(0, ip.find('/')),
			    std::string("vport ") + vp->evp_name);
		return 0;
	};
	if (kel_db_walk_vports(h, filter, 0, each, &out) == KEL_SUCCESS)
		out.say("addresses", pool);
}

void say_outside_ids(kel_dbhandle_t h, const std::string &setting)
{
	const size_t eq = setting.find('=');
	const std::string name = setting.substr(0, eq);
	if (eq == std::string::npos || (name != "vlan-range" && name != "vxlan-range"))
		return;
	// A range set holds commas of its own: the value is all that follows the '='.
	const std::string text = setting.substr(eq + 1);
	ValueRanges range;
	if (!range.parse(text))
		return;
	kel::RecordList<kel_t> kels;
	if (kels.read([&](list_t *l) { return kel_db_get_filtered_kellist(h, nullptr, l, KEL_LIST_NO_MEMBERS); }) !=
	    KEL_SUCCESS)
		return;
	const bool vxlan = name == "vxlan-range";
	Outside out(&range);
	for (kel_t *k : kels)
		if (prop(k->kel_props, "l2-type") == (vxlan ? "vxlan" : "vlan"))
			out.add(prop(k->kel_props, vxlan ? "vni" : "vlanid"),
			    std::string("kel ") + k->kel_tenantname + "/" + k->kel_name);
	out.say(vxlan ? "VNIs" : "VLAN IDs", text);
}

}  // namespace keladm
