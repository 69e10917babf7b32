// The records as they travel: JSON objects keyed by the C field names. These readers build
// the caller's records from a reply; they throw nlohmann::json exceptions on a reply of
// the wrong shape and std::bad_alloc when memory runs out, leaving nothing allocated.
#pragma once

#include <nlohmann/json.hpp>

#include "kelcntl.h"

namespace kelcntl::wire {

kelcntl_KELError *error_from(const nlohmann::json &j);
kelcntl_VPortInfo *vport_from(const nlohmann::json &j);
kelcntl_KELImplInfo *implinfo_from(const nlohmann::json &j);
// A JSON array of vports into a pointer array; *count gets its length.
kelcntl_VPortInfo **vports_from(const nlohmann::json &items, int *count);

}  // namespace kelcntl::wire
