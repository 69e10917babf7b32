// The links' filter batches (link_filter.h) sent to the kernel's nf_tables as netlink
// messages built with libnftnl, without libnftables. libnftables reads every chain of
// the namespace's netdev family before it adds a rule, so with it each batch would cost
// more as a host's VNICs grow; this asks the kernel nothing and sends just the batch.
//
// It knows exactly the vocabulary the fabric's batches use (tables, chains, base chains,
// named sets with their elements, rules of payload, meta, masked and named-set matches,
// counters and verdicts); a batch with anything else (an anonymous set, for one) is
// Unsupported, and the caller hands it to libnftables. What it sends is what libnftables would send for the same batch, the
// same protocol checks before each header read included, so a listing reads the same.
#pragma once

#include <nlohmann/json.hpp>

namespace wexo::nft {

enum class Direct { Done, Refused, Unsupported };

// Runs `batch` in the caller's network namespace as one transaction: Done, Refused when
// the kernel refused any of it (nothing then changed), Unsupported when it holds
// something this does not build (nothing sent).
Direct run_direct(const nlohmann::json &batch);

}  // namespace wexo::nft
