#include "tbf.h"

#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>

#include <algorithm>

#include "link_internal.h"

namespace wexo {
namespace {

constexpr uint64_t kLatencyUs = 50000;  // what may queue: 50 ms at the rate
constexpr uint64_t kBurstMs = 10;       // the bucket: 10 ms at the rate, at least 16 KiB
constexpr uint64_t kMinBurst = 16384;

// A message that frees itself.
struct Message {
	struct nl_msg *msg = nlmsg_alloc_simple(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_REPLACE);
	~Message() { nlmsg_free(msg); }
};

}  // namespace

wexo_status_t tbf_set(struct nl_sock *sock, int ifindex, uint64_t bps)
{
	const uint64_t rate = std::max<uint64_t>(bps / 8, 1);  // bytes per second
	const uint64_t burst = std::min<uint64_t>(std::max(rate * kBurstMs / 1000, kMinBurst), UINT32_MAX);
	const uint64_t limit = std::min<uint64_t>(rate * kLatencyUs / 1000000 + burst, UINT32_MAX);
	struct tc_tbf_qopt qopt {};
	// Rates that do not fit the 32-bit field go in TCA_TBF_RATE64, which the kernel
	// prefers; the field then holds its largest value, as tc writes it. The link layer
	// is named, so the kernel needs no rate table.
	qopt.rate.rate = rate >= (uint64_t{1} << 32) ? UINT32_MAX : static_cast<uint32_t>(rate);
	qopt.rate.linklayer = TC_LINKLAYER_ETHERNET;
	qopt.limit = static_cast<uint32_t>(limit);
	struct tcmsg tcm {};
	tcm.tcm_family = AF_UNSPEC;
	tcm.tcm_ifindex = ifindex;
	tcm.tcm_parent = TC_H_ROOT;

	Message m;
	if (m.msg == nullptr)
		return WEXO_STATUS_NOMEM;
	struct nlattr *opts = nullptr;
	if (nlmsg_append(m.msg, &tcm, sizeof(tcm), NLMSG_ALIGNTO) < 0 || nla_put_string(m.msg, TCA_KIND, "tbf") < 0 ||
	    (opts = nla_nest_start(m.msg, TCA_OPTIONS)) == nullptr ||
	    nla_put(m.msg, TCA_TBF_PARMS, sizeof(qopt), &qopt) < 0 ||
	    nla_put_u32(m.msg, TCA_TBF_BURST, static_cast<uint32_t>(burst)) < 0 ||
	    (rate >= (uint64_t{1} << 32) && nla_put_u64(m.msg, TCA_TBF_RATE64, rate) < 0) ||
	    nla_nest_end(m.msg, opts) < 0)
		return WEXO_STATUS_NOMEM;
	const int err = nl_send_auto(sock, m.msg);
	if (err < 0)
		return wexo_from_nl(err);
	const int ack = nl_wait_for_ack(sock);
	return ack == 0 ? WEXO_STATUS_OK : wexo_from_nl(ack);
}

}  // namespace wexo
