// The hosts an operator added to the fabric, before or without any port bound there.
#pragma once

#include <string>
#include <vector>

#include <kel/libkel.h>

namespace kel {

// The hosts added (keladm add-host), by name; the caller holds the store lock.
int added_hosts(kel_dbhandle_t h, std::vector<std::string> *out);

}  // namespace kel
