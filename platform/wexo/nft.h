// Running nftables batches built as JSON (link_filter.h) in a network namespace, and
// reading a table back, through libnftables.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "wexo.h"

namespace wexo::nft {

// Runs `batch` in namespace `nsfd` (-1: the caller's) as one transaction: all of it or
// none. WEXO_STATUS_FAILED when nftables refuses it.
wexo_status_t run(int nsfd, const nlohmann::json &batch);
// What a "list" command (JSON) prints in namespace `nsfd`, parsed.
wexo_status_t list(int nsfd, const nlohmann::json &command, nlohmann::json *listing);
// The netdev table `name` of namespace `nsfd`, as nftables lists it (objects under
// "nftables"); WEXO_STATUS_NOTFOUND when there is none.
wexo_status_t list_table(int nsfd, const std::string &name, nlohmann::json *listing);

// What the netdev table `table` of namespace `nsfd` holds of one link: the rules of
// `chains` and the elements of `sets` (name, address family), read by name, in the shape
// of a listing of the table (nft_read.h); the whole table's listing where nf_tables
// cannot be asked so.
wexo_status_t list_link(int nsfd, const std::string &table, const std::vector<std::string> &chains,
    const std::vector<std::pair<std::string, int>> &sets, nlohmann::json *listing);

}  // namespace wexo::nft
