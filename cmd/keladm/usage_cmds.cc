// show-usage: how full each ID range, each host's share of it and each address pool is.
#include <cstdio>
#include <string>
#include <vector>

#include "keladm.h"
#include "owners.h"
#include "usage_rows.h"

namespace keladm {
namespace {

// Field `field` of kUsageFields for `row`, flagged high from `threshold` percent.
std::string usage_field(const UsageRow &row, double threshold, size_t field)
{
	// Whole values keep their exactness as text; only the percentage is a ratio.
	const double percent = row.total == 0 ? 0
	                                      : static_cast<double>(row.used) * 100 / static_cast<double>(row.total);
	switch (field) {
	case 0: return row.resource;
	case 1: return row.owner;
	case 2: return row.range;
	case 3: return row.known ? ValueRanges::decimal(row.total) : "";
	case 4: return row.known ? ValueRanges::decimal(row.used) : "";
	case 5: return row.known ? ValueRanges::decimal(row.total - row.used) : "";
	case 6: {
		if (!row.known || row.total == 0)
			return "";
		char buf[16];
		std::snprintf(buf, sizeof(buf), "%.1f", percent);
		return buf;
	}
	default: return !row.known || row.total == 0 ? "" : percent >= threshold ? "yes" : "no";
	}
}

}  // namespace

int show_usage(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	if (!opts.operands.empty())
		return usage_error(cmd, "show-usage takes no operands");
	kel::StoreHandle store;
	if (open_store(&store, false) != KEL_SUCCESS)
		return kExitFailed;
	std::vector<UsageRow> rows;
	if (int rc = id_rows(store.get(), &rows); rc != KEL_SUCCESS)
		return fail("cannot read the ID ranges", rc);
	if (int rc = pool_rows(store.get(), listed_tenant(opts), &rows); rc != KEL_SUCCESS)
		return fail("cannot read the address pools", rc);
	for (const UsageRow &row : rows)
		out.add_with([&](size_t f) { return usage_field(row, opts.threshold, f); });
	out.print();
	return kExitOk;
}

}  // namespace keladm
