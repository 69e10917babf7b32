#include "nft_read.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <sys/socket.h>

#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/udata.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>

#include "nft_values.h"

namespace wexo::nft {
namespace {

using Json = nlohmann::json;

struct SocketClose {
	void operator()(mnl_socket *nl) const { mnl_socket_close(nl); }
};

using Each = std::function<void(const nlmsghdr *)>;

int each_answer(const nlmsghdr *nlh, void *data)
{
	(*static_cast<Each *>(data))(nlh);
	return MNL_CB_OK;
}

// Asks for one dump, its request's payload written by `fill`, and hands each answer to
// `each`. An error answer (no such table, chain or set) is an empty dump; false when the
// socket itself fails.
bool dump(mnl_socket *nl, uint16_t type, const std::function<void(nlmsghdr *)> &fill, Each each)
{
	// One socket a reading: its requests follow one another, each answered in full.
	const uint32_t seq = 1;
	std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
	nlmsghdr *nlh = nftnl_nlmsg_build_hdr(buf.data(), type, NFPROTO_NETDEV, NLM_F_DUMP, seq);
	fill(nlh);
	if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) < 0)
		return false;
	const uint32_t portid = mnl_socket_get_portid(nl);
	for (;;) {
		const ssize_t n = mnl_socket_recvfrom(nl, buf.data(), buf.size());
		if (n < 0)
			return false;
		const int r = mnl_cb_run(buf.data(), static_cast<size_t>(n), seq, portid, each_answer, &each);
		if (r == MNL_CB_STOP)
			return true;
		if (r < 0)
			return errno != EINTR && errno != ENOBUFS;
	}
}

int comment_of(const nftnl_udata *attr, void *data)
{
	if (nftnl_udata_type(attr) == NFTNL_UDATA_RULE_COMMENT) {
		const char *text = static_cast<const char *>(nftnl_udata_get(attr));
		*static_cast<std::string *>(data) = std::string(text, strnlen(text, nftnl_udata_len(attr)));
	}
	return 0;
}

std::string address_text(int family, const Bytes &b)
{
	char buf[INET6_ADDRSTRLEN] = "";
	inet_ntop(family, b.data(), buf, sizeof(buf));
	return buf;
}

// An interval as nftables lists it: an address, a prefix, or a range.
Json element(int family, const Bytes &first, const Bytes &last)
{
	const unsigned bits = static_cast<unsigned>(first.size() * 8);
	unsigned host = 0;  // the trailing bits that are 0 in `first` and 1 in `last`
	while (host < bits) {
		const unsigned bit = bits - 1 - host;
		const uint8_t mask = static_cast<uint8_t>(0x80u >> (bit % 8));
		if ((first[bit / 8] & mask) != 0 || (last[bit / 8] & mask) == 0)
			break;
		host++;
	}
	bool prefix = true;  // and the bits above those the same in both
	for (unsigned bit = 0; bit + host < bits && prefix; bit++) {
		const uint8_t mask = static_cast<uint8_t>(0x80u >> (bit % 8));
		prefix = (first[bit / 8] & mask) == (last[bit / 8] & mask);
	}
	if (!prefix)
		return {{"range", {address_text(family, first), address_text(family, last)}}};
	if (host == 0)
		return address_text(family, first);
	return {{"prefix", {{"addr", address_text(family, first)}, {"len", bits - host}}}};
}

// The elements of an interval set, as the kernel keeps them (each interval's first key,
// and the key past its last marked as an end), back into intervals.
Json intervals(int family, std::vector<std::pair<Bytes, bool>> keys)
{
	// In key order, an end before a start of the same key: one interval ends where the
	// next begins.
	std::sort(keys.begin(), keys.end(),
	    [](const auto &a, const auto &b) { return a.first != b.first ? a.first < b.first : a.second > b.second; });
	Json out = Json::array();
	std::optional<Bytes> open;
	for (auto &[key, end] : keys) {
		if (!end) {
			open = key;
		} else if (open) {
			Bytes last = key;
			decrement(&last);
			out.push_back(element(family, *open, last));
			open.reset();
		}
	}
	if (open)
		out.push_back(element(family, *open, Bytes(open->size(), 0xff)));
	return out;
}

// The rule's counters, as a listing shows them: {"counter": {"packets", "bytes"}} each.
Json counters_of(nftnl_rule *r)
{
	Json out = Json::array();
	nftnl_expr_foreach(
	    r,
	    [](nftnl_expr *e, void *data) {
		    const char *name = nftnl_expr_get_str(e, NFTNL_EXPR_NAME);
		    if (name != nullptr && std::strcmp(name, "counter") == 0)
			    static_cast<Json *>(data)->push_back({{"counter",
			        {{"packets", nftnl_expr_get_u64(e, NFTNL_EXPR_CTR_PACKETS)},
			            {"bytes", nftnl_expr_get_u64(e, NFTNL_EXPR_CTR_BYTES)}}}});
		    return 0;
	    },
	    &out);
	return out;
}

}  // namespace

bool read_link(const std::string &table, const std::vector<std::string> &chains,
    const std::vector<std::pair<std::string, int>> &sets, nlohmann::json *listing)
{
	std::unique_ptr<mnl_socket, SocketClose> nl(mnl_socket_open(NETLINK_NETFILTER));
	if (nl == nullptr || mnl_socket_bind(nl.get(), 0, MNL_SOCKET_AUTOPID) < 0)
		return false;
	Json objects = Json::array();
	for (const std::string &chain : chains) {
		std::unique_ptr<nftnl_rule, void (*)(const nftnl_rule *)> ask(nftnl_rule_alloc(), nftnl_rule_free);
		nftnl_rule_set_str(ask.get(), NFTNL_RULE_TABLE, table.c_str());
		nftnl_rule_set_str(ask.get(), NFTNL_RULE_CHAIN, chain.c_str());
		nftnl_rule_set_u32(ask.get(), NFTNL_RULE_FAMILY, NFPROTO_NETDEV);
		Json rules = Json::array();
		const bool ok = dump(
		    nl.get(), NFT_MSG_GETRULE, [&](nlmsghdr *nlh) { nftnl_rule_nlmsg_build_payload(nlh, ask.get()); },
		    [&](const nlmsghdr *nlh) {
			    std::unique_ptr<nftnl_rule, void (*)(const nftnl_rule *)> r(nftnl_rule_alloc(),
			        nftnl_rule_free);
			    if (nftnl_rule_nlmsg_parse(nlh, r.get()) < 0 ||
			        !nftnl_rule_is_set(r.get(), NFTNL_RULE_CHAIN) ||
			        chain != nftnl_rule_get_str(r.get(), NFTNL_RULE_CHAIN))
				    return;
			    Json rule = {{"family", "netdev"}, {"table", table}, {"chain", chain}};
			    uint32_t len = 0;
			    const void *ud = nftnl_rule_get_data(r.get(), NFTNL_RULE_USERDATA, &len);
			    std::string comment;
			    if (ud != nullptr && nftnl_udata_parse(ud, len, comment_of, &comment) >= 0 &&
			        !comment.empty())
				    rule["comment"] = comment;
			    if (Json counters = counters_of(r.get()); !counters.empty())
				    rule["expr"] = std::move(counters);
			    rules.push_back({{"rule", std::move(rule)}});
		    });
		if (!ok)
			return false;
		if (!rules.empty())
			objects.push_back({{"chain", {{"family", "netdev"}, {"table", table}, {"name", chain}}}});
		for (Json &r : rules)
			objects.push_back(std::move(r));
	}
	for (const auto &[name, family] : sets) {
		std::unique_ptr<nftnl_set, void (*)(const nftnl_set *)> ask(nftnl_set_alloc(), nftnl_set_free);
		nftnl_set_set_str(ask.get(), NFTNL_SET_TABLE, table.c_str());
		nftnl_set_set_str(ask.get(), NFTNL_SET_NAME, name.c_str());
		nftnl_set_set_u32(ask.get(), NFTNL_SET_FAMILY, NFPROTO_NETDEV);
		const size_t len = family == AF_INET ? 4 : 16;
		std::vector<std::pair<Bytes, bool>> keys;
		const bool ok = dump(
		    nl.get(), NFT_MSG_GETSETELEM,
		    [&](nlmsghdr *nlh) { nftnl_set_elems_nlmsg_build_payload(nlh, ask.get()); },
		    [&](const nlmsghdr *nlh) {
			    std::unique_ptr<nftnl_set, void (*)(const nftnl_set *)> s(nftnl_set_alloc(),
			        nftnl_set_free);
			    if (nftnl_set_elems_nlmsg_parse(nlh, s.get()) < 0)
				    return;
			    nftnl_set_elems_iter *it = nftnl_set_elems_iter_create(s.get());
			    for (nftnl_set_elem *e; it != nullptr && (e = nftnl_set_elems_iter_next(it)) != nullptr;) {
				    uint32_t klen = 0;
				    const auto *key = static_cast<const uint8_t *>(
				        nftnl_set_elem_get(e, NFTNL_SET_ELEM_KEY, &klen));
				    if (key == nullptr || klen != len)
					    continue;
				    const bool end = nftnl_set_elem_is_set(e, NFTNL_SET_ELEM_FLAGS) &&
				        (nftnl_set_elem_get_u32(e, NFTNL_SET_ELEM_FLAGS) & NFT_SET_ELEM_INTERVAL_END) !=
				            0;
				    keys.emplace_back(Bytes(key, key + klen), end);
			    }
			    if (it != nullptr)
				    nftnl_set_elems_iter_destroy(it);
		    });
		if (!ok)
			return false;
		Json elems = intervals(family, std::move(keys));
		if (!elems.empty())
			objects.push_back({{"set",
			    {{"family", "netdev"}, {"table", table}, {"name", name}, {"elem", std::move(elems)}}}});
	}
	*listing = {{"nftables", std::move(objects)}};
	return true;
}

}  // namespace wexo::nft
