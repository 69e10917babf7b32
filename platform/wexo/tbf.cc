#include "tbf.h"

#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>

#include <algorithm>
#include <cstring>

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

namespace {

struct RootRate {
	int ifindex;
	uint64_t bytes = 0;  // per second
};

// One qdisc of the dump: the rate of the one asked for, when it is a tbf.
int read_root_tbf(struct nl_msg *msg, void *arg)
{
	auto *want = static_cast<RootRate *>(arg);
	struct nlmsghdr *nlh = nlmsg_hdr(msg);
	if (!nlmsg_valid_hdr(nlh, sizeof(struct tcmsg)))
		return NL_SKIP;
	const auto *tcm = static_cast<const struct tcmsg *>(nlmsg_data(nlh));
	if (tcm->tcm_ifindex != want->ifindex || tcm->tcm_parent != TC_H_ROOT)
		return NL_OK;
	struct nlattr *tb[TCA_MAX + 1];
	struct nlattr *opts[TCA_TBF_MAX + 1];
	if (nlmsg_parse(nlh, sizeof(struct tcmsg), tb, TCA_MAX, nullptr) < 0 || tb[TCA_KIND] == nullptr ||
	    std::strcmp(nla_get_string(tb[TCA_KIND]), "tbf") != 0 || tb[TCA_OPTIONS] == nullptr ||
	    nla_parse_nested(opts, TCA_TBF_MAX, tb[TCA_OPTIONS], nullptr) < 0)
		return NL_OK;
	if (opts[TCA_TBF_RATE64] != nullptr && nla_len(opts[TCA_TBF_RATE64]) >= static_cast<int>(sizeof(uint64_t)))
		want->bytes = nla_get_u64(opts[TCA_TBF_RATE64]);
	else if (opts[TCA_TBF_PARMS] != nullptr &&
	    nla_len(opts[TCA_TBF_PARMS]) >= static_cast<int>(sizeof(struct tc_tbf_qopt)))
		want->bytes = static_cast<const struct tc_tbf_qopt *>(nla_data(opts[TCA_TBF_PARMS]))->rate.rate;
	return NL_OK;
}

}  // namespace

uint64_t tbf_rate(struct nl_sock *sock, int ifindex)
{
	// A callback set of this read's own: the socket's stays as its other users left it.
	// Made before the request, so that no failure leaves a dump unread on the socket.
	struct nl_cb *base = nl_socket_get_cb(sock);
	struct nl_cb *cb = base != nullptr ? nl_cb_clone(base) : nullptr;
	nl_cb_put(base);
	if (cb == nullptr)
		return 0;
	RootRate found{ifindex};
	nl_cb_set(cb, NL_CB_VALID, NL_CB_CUSTOM, read_root_tbf, &found);
	struct tcmsg tcm {};
	tcm.tcm_family = AF_UNSPEC;
	const int err = nl_send_simple(sock, RTM_GETQDISC, NLM_F_DUMP, &tcm, sizeof(tcm)) < 0 ? -1
	                                                                                      : nl_recvmsgs(sock, cb);
	nl_cb_put(cb);
	return err < 0 ? 0 : found.bytes * 8;
}

}  // namespace wexo
