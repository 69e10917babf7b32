// How full each ID range, each host's share of it and each address pool is, for
// keladm show-usage and for the controller's metrics (keld builds its own copy). Counted
// on the range texts' intervals, never value by value.
#pragma once

#include <string>
#include <vector>

#include <kel/libkel.h>
#include "value_ranges.h"

namespace keladm {

struct UsageRow {
	std::string resource, owner, range;
	Value total = 0, used = 0;
	bool known = true;  // false when a range text could not be read
};

// The ID ranges: the fabric's, then each host's shares, with what kels hold of them.
int id_rows(kel_dbhandle_t h, std::vector<UsageRow> *rows);
// Each network's pool (of `tenant`; "" for every tenant's), with what its ports hold of it.
int pool_rows(kel_dbhandle_t h, const std::string &tenant, std::vector<UsageRow> *rows);

}  // namespace keladm
