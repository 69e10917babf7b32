// One link's part of the shared filter table read straight from nf_tables through
// libnftnl: the rules of its chains and the elements of its address sets, asked for by
// name, so that reading one link costs the same however many links share the table
// (a listing of the table through libnftables reads all of them).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace wexo::nft {

// Reads, in the caller's network namespace, the rules of each chain of `chains` in the
// netdev table `table` and the elements of each set of `sets` (name, and AF_INET or
// AF_INET6 for its addresses), into *listing in the shape a listing of the table has: a
// {"chain": {"table", "name"}} for each chain with rules, a {"rule": {"table", "chain",
// "comment", "expr"}} for each rule (its expressions but its counters left out), a {"set": {"name", "elem"}} for each set with elements (an
// address, {"prefix": {"addr", "len"}} or {"range": [first, last]}). What is not there
// is left out. false when nf_tables could not be asked.
bool read_link(const std::string &table, const std::vector<std::string> &chains,
    const std::vector<std::pair<std::string, int>> &sets, nlohmann::json *listing);

}  // namespace wexo::nft
