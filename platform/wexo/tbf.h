// The bandwidth cap of a link: a token-bucket (tbf) root qdisc, programmed with the
// kernel's 64-bit rate so that caps of any size hold (the 32-bit field stops at about
// 34 Gbit/s, and libnl's setter at 17).
#pragma once

#include <netlink/netlink.h>

#include <cstdint>

#include "wexo.h"

namespace wexo {

// Replaces the root qdisc of `ifindex` with a tbf of `bps` bits per second.
wexo_status_t tbf_set(struct nl_sock *sock, int ifindex, uint64_t bps);
// The rate of the root tbf of `ifindex`, in bits per second, read as the kernel reports
// it (the 64-bit rate where there is one: libnl's reader stops at the 32-bit field); 0
// when the root qdisc is not a tbf, or cannot be read.
uint64_t tbf_rate(struct nl_sock *sock, int ifindex);

}  // namespace wexo
