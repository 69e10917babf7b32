#include "nft_direct.h"

#include <arpa/inet.h>
#include <linux/if_arp.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <libnftnl/udata.h>

#include "nft_values.h"
#include "owners.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace wexo::nft {
namespace {

using Json = nlohmann::json;

using kel::Owned;
using TablePtr = Owned<nftnl_table, nftnl_table_free>;
using ChainPtr = Owned<nftnl_chain, nftnl_chain_free>;
using SetPtr = Owned<nftnl_set, nftnl_set_free>;
using RulePtr = Owned<nftnl_rule, nftnl_rule_free>;
using UdataPtr = Owned<nftnl_udata_buf, nftnl_udata_buf_free>;

// The messages of one batch, one after another in one buffer, between its begin and end.
class Wire {
public:
	Wire() { frame(nftnl_batch_begin); }

	// Appends one message of at most `room` bytes, its payload written by `fill`.
	template <class Fill>
	void message(uint16_t type, uint16_t flags, size_t room, Fill fill)
	{
		reserve(room);
		nlmsghdr *nlh = nftnl_nlmsg_build_hdr(buf_.data() + used_, type, NFPROTO_NETDEV, flags, seq_++);
		fill(nlh);
		used_ += NLMSG_ALIGN(nlh->nlmsg_len);
	}
	const std::vector<char> &done()
	{
		frame(nftnl_batch_end);
		buf_.resize(used_);
		return buf_;
	}

private:
	void reserve(size_t room)
	{
		if (buf_.size() < used_ + room)
			buf_.resize(std::max(buf_.size() * 2, used_ + room));
	}
	void frame(nlmsghdr *(*make)(char *, uint32_t))
	{
		reserve(MNL_NLMSG_HDRLEN + 64);
		used_ += NLMSG_ALIGN(make(buf_.data() + used_, seq_++)->nlmsg_len);
	}

	std::vector<char> buf_;
	size_t used_ = 0;
	uint32_t seq_ = 1;
};

class Compiler {
public:
	void command(const Json &c)
	{
		if (!c.is_object() || c.size() != 1)
			throw Unknown{};
		const std::string &verb = c.begin().key();
		const Json &body = c.begin().value();
		if (!body.is_object() || body.size() != 1)
			throw Unknown{};
		const std::string &what = body.begin().key();
		const Json &o = body.begin().value();
		if (o.value("family", "") != "netdev")
			throw Unknown{};
		if (what == "table")
			table(verb, o);
		else if (what == "chain")
			chain(verb, o);
		else if (what == "set")
			set(verb, o);
		else if (what == "rule" && verb == "add")
			rule(o);
		else if (what == "element" && (verb == "add" || verb == "delete"))
			elements(verb, o);
		else
			throw Unknown{};
	}
	const std::vector<char> &done() { return wire_.done(); }

private:
	void table(const std::string &verb, const Json &o)
	{
		TablePtr t(nftnl_table_alloc());
		nftnl_table_set_str(t.get(), NFTNL_TABLE_NAME, o.at("name").get_ref<const std::string &>().c_str());
		nftnl_table_set_u32(t.get(), NFTNL_TABLE_FAMILY, NFPROTO_NETDEV);
		const auto fill = [&](nlmsghdr *nlh) { nftnl_table_nlmsg_build_payload(nlh, t.get()); };
		if (verb == "add")
			wire_.message(NFT_MSG_NEWTABLE, NLM_F_CREATE, 512, fill);
		else if (verb == "delete")
			wire_.message(NFT_MSG_DELTABLE, 0, 512, fill);
		else
			throw Unknown{};
	}

	void chain(const std::string &verb, const Json &o)
	{
		ChainPtr ch(nftnl_chain_alloc());
		nftnl_chain_set_str(ch.get(), NFTNL_CHAIN_TABLE, o.at("table").get_ref<const std::string &>().c_str());
		nftnl_chain_set_str(ch.get(), NFTNL_CHAIN_NAME, o.at("name").get_ref<const std::string &>().c_str());
		nftnl_chain_set_u32(ch.get(), NFTNL_CHAIN_FAMILY, NFPROTO_NETDEV);
		if (o.contains("hook")) {
			const std::string &hook = o.at("hook").get_ref<const std::string &>();
			if ((hook != "ingress" && hook != "egress") || o.at("type") != "filter" ||
			    o.at("policy") != "accept")
				throw Unknown{};
			nftnl_chain_set_u32(ch.get(), NFTNL_CHAIN_HOOKNUM,
			    hook == "ingress" ? NF_NETDEV_INGRESS : NF_NETDEV_EGRESS);
			nftnl_chain_set_s32(ch.get(), NFTNL_CHAIN_PRIO, o.at("prio").get<int32_t>());
			nftnl_chain_set_str(ch.get(), NFTNL_CHAIN_TYPE, "filter");
			nftnl_chain_set_str(ch.get(), NFTNL_CHAIN_DEV,
			    o.at("dev").get_ref<const std::string &>().c_str());
			nftnl_chain_set_u32(ch.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
		}
		if (verb == "add") {
			wire_.message(NFT_MSG_NEWCHAIN, NLM_F_CREATE, 1024,
			    [&](nlmsghdr *nlh) { nftnl_chain_nlmsg_build_payload(nlh, ch.get()); });
		} else if (verb == "flush") {
			// Every rule of the chain: a rule deletion that names no rule.
			RulePtr r(nftnl_rule_alloc());
			nftnl_rule_set_str(r.get(), NFTNL_RULE_TABLE,
			    o.at("table").get_ref<const std::string &>().c_str());
			nftnl_rule_set_str(r.get(), NFTNL_RULE_CHAIN,
			    o.at("name").get_ref<const std::string &>().c_str());
			nftnl_rule_set_u32(r.get(), NFTNL_RULE_FAMILY, NFPROTO_NETDEV);
			wire_.message(NFT_MSG_DELRULE, 0, 1024,
			    [&](nlmsghdr *nlh) { nftnl_rule_nlmsg_build_payload(nlh, r.get()); });
		} else if (verb == "delete") {
			wire_.message(NFT_MSG_DELCHAIN, 0, 1024,
			    [&](nlmsghdr *nlh) { nftnl_chain_nlmsg_build_payload(nlh, ch.get()); });
		} else {
			throw Unknown{};
		}
	}

	// A set of this batch's own: its name, the id rules refer to it by, and its key.
	SetPtr new_set(const std::string &table, const std::string &name, const Key &key, uint32_t flags)
	{
		SetPtr s(nftnl_set_alloc());
		nftnl_set_set_str(s.get(), NFTNL_SET_TABLE, table.c_str());
		nftnl_set_set_str(s.get(), NFTNL_SET_NAME, name.c_str());
		nftnl_set_set_u32(s.get(), NFTNL_SET_FAMILY, NFPROTO_NETDEV);
		nftnl_set_set_u32(s.get(), NFTNL_SET_FLAGS, flags);
		nftnl_set_set_u32(s.get(), NFTNL_SET_KEY_TYPE, key.type);
		nftnl_set_set_u32(s.get(), NFTNL_SET_KEY_LEN, key.len);
		nftnl_set_set_u32(s.get(), NFTNL_SET_ID, ++set_ids_);
		UdataPtr ud(nftnl_udata_buf_alloc(64));
		nftnl_udata_put_u32(ud.get(), NFTNL_UDATA_SET_KEYBYTEORDER, kBigEndian);
		nftnl_set_set_data(s.get(), NFTNL_SET_USERDATA, nftnl_udata_buf_data(ud.get()),
		    nftnl_udata_buf_len(ud.get()));
		return s;
	}

	void add_element(nftnl_set *s, const Bytes &key, uint32_t flags)
	{
		nftnl_set_elem *e = nftnl_set_elem_alloc();
		nftnl_set_elem_set(e, NFTNL_SET_ELEM_KEY, key.data(), key.size());
		if (flags != 0)
			nftnl_set_elem_set_u32(e, NFTNL_SET_ELEM_FLAGS, flags);
		nftnl_set_elem_add(s, e);
	}

	// Sends set `s` and then its `count` elements.
	void send_set(nftnl_set *s, size_t count)
	{
		wire_.message(NFT_MSG_NEWSET, NLM_F_CREATE, 1024,
		    [&](nlmsghdr *nlh) { nftnl_set_nlmsg_build_payload(nlh, s); });
		if (count > 0)
			wire_.message(NFT_MSG_NEWSETELEM, NLM_F_CREATE, 256 + count * 96,
			    [&](nlmsghdr *nlh) { nftnl_set_elems_nlmsg_build_payload(nlh, s); });
	}

	void set(const std::string &verb, const Json &o)
	{
		const std::string &table = o.at("table").get_ref<const std::string &>();
		const std::string &name = o.at("name").get_ref<const std::string &>();
		const Key key = named_key(o.at("type").get<std::string>());
		bool interval = false;
		if (o.contains("flags")) {
			if (o.at("flags") != Json::array({"interval"}))
				throw Unknown{};
			interval = true;
		}
		SetPtr s = new_set(table, name, key, interval ? NFT_SET_INTERVAL : 0);
		if (verb == "delete") {
			wire_.message(NFT_MSG_DELSET, 0, 1024,
			    [&](nlmsghdr *nlh) { nftnl_set_nlmsg_build_payload(nlh, s.get()); });
			return;
		}
		if (verb != "add")
			throw Unknown{};
		named_[table + "\n" + name] = set_ids_;
		const Json elems = o.value("elem", Json::array());
		size_t count = 0;
		if (interval) {
			// Ranges in order, those that overlap joined; each is its first address and
			// the one past its last marked as an end, and the gap before the first, as
			// nftables writes them, is an end at zero.
			std::vector<std::pair<Bytes, Bytes>> ranges;
			for (const Json &e : elems)
				ranges.push_back(range_of(e, key));
			std::sort(ranges.begin(), ranges.end());
			std::vector<std::pair<Bytes, Bytes>> joined;
			for (auto &r : ranges) {
				if (!joined.empty() && joined.back().second >= r.first)
					joined.back().second = std::max(joined.back().second, r.second);
				else
					joined.push_back(std::move(r));
			}
			if (!joined.empty() && joined.front().first != Bytes(key.len, 0)) {
				add_element(s.get(), Bytes(key.len, 0), NFT_SET_ELEM_INTERVAL_END);
				count++;
			}
			for (auto &[first, last] : joined) {
				add_element(s.get(), first, 0);
				count++;
				if (increment(&last)) {
					add_element(s.get(), last, NFT_SET_ELEM_INTERVAL_END);
					count++;
				}
			}
		} else {
			for (const Json &e : elems) {
				add_element(s.get(), value_of(e, key.type, key.len), 0);
				count++;
			}
		}
		send_set(s.get(), count);
	}

	// Addresses added to or deleted from a set that is there already (a lower link's
	// guard, the one set changed element by element): a set of this batch's own is made
	// whole by "add set".
	void elements(const std::string &verb, const Json &o)
	{
		SetPtr s(nftnl_set_alloc());
		nftnl_set_set_str(s.get(), NFTNL_SET_TABLE, o.at("table").get_ref<const std::string &>().c_str());
		nftnl_set_set_str(s.get(), NFTNL_SET_NAME, o.at("name").get_ref<const std::string &>().c_str());
		nftnl_set_set_u32(s.get(), NFTNL_SET_FAMILY, NFPROTO_NETDEV);
		const Json &elems = o.at("elem");
		for (const Json &e : elems)
			add_element(s.get(), value_of(e, kEtherAddr, 6), 0);
		if (elems.empty())
			return;
		wire_.message(verb == "add" ? NFT_MSG_NEWSETELEM : NFT_MSG_DELSETELEM, verb == "add" ? NLM_F_CREATE : 0,
		    256 + elems.size() * 96, [&](nlmsghdr *nlh) { nftnl_set_elems_nlmsg_build_payload(nlh, s.get()); });
	}

	// A rule's expressions, the register every load goes into.
	class Exprs {
	public:
		explicit Exprs(nftnl_rule *r) : r_(r) {}
		nftnl_expr *add(const char *kind)
		{
			nftnl_expr *e = nftnl_expr_alloc(kind);
			nftnl_rule_add_expr(r_, e);
			return e;
		}
		void meta_load(uint32_t key)
		{
			nftnl_expr *e = add("meta");
			nftnl_expr_set_u32(e, NFTNL_EXPR_META_KEY, key);
			nftnl_expr_set_u32(e, NFTNL_EXPR_META_DREG, NFT_REG_1);
		}
		void cmp(uint32_t op, const void *data, size_t len)
		{
			nftnl_expr *e = add("cmp");
			nftnl_expr_set_u32(e, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
			nftnl_expr_set_u32(e, NFTNL_EXPR_CMP_OP, op);
			nftnl_expr_set(e, NFTNL_EXPR_CMP_DATA, data, len);
		}
		void payload(uint32_t base, uint32_t offset, uint32_t len)
		{
			nftnl_expr *e = add("payload");
			nftnl_expr_set_u32(e, NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
			nftnl_expr_set_u32(e, NFTNL_EXPR_PAYLOAD_BASE, base);
			nftnl_expr_set_u32(e, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
			nftnl_expr_set_u32(e, NFTNL_EXPR_PAYLOAD_LEN, len);
		}
		// What a header field needs checked before it is read, once per rule.
		void needs(const Field &f)
		{
			if (f.needs == Needs::Ethernet && checked_.insert("ether").second) {
				meta_load(NFT_META_IIFTYPE);
				const uint16_t ether = ARPHRD_ETHER;
				cmp(NFT_CMP_EQ, &ether, sizeof(ether));
			}
			if (f.network != 0 && checked_.insert("network").second) {
				meta_load(NFT_META_PROTOCOL);
				const uint16_t proto = htons(f.network);
				cmp(NFT_CMP_EQ, &proto, sizeof(proto));
			}
			if (f.needs == Needs::Transport && checked_.insert("transport").second) {
				meta_load(NFT_META_L4PROTO);
				cmp(NFT_CMP_EQ, &f.transport, sizeof(f.transport));
			}
		}

	private:
		nftnl_rule *r_;
		std::set<std::string> checked_;
	};

	// Loads the left side of a match into the register: a header field, a raw span of a
	// header, or either masked. What the right side is read as.
	Key load(Exprs &x, const Json &left)
	{
		if (left.contains("&")) {
			const Json &pair = left.at("&");
			if (!pair.is_array() || pair.size() != 2)
				throw Unknown{};
			const Key key = load(x, pair[0]);
			const Bytes mask = value_of(pair[1], kInteger, key.len), zero(key.len, 0);
			nftnl_expr *e = x.add("bitwise");
			nftnl_expr_set_u32(e, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
			nftnl_expr_set_u32(e, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
			nftnl_expr_set_u32(e, NFTNL_EXPR_BITWISE_LEN, key.len);
			nftnl_expr_set(e, NFTNL_EXPR_BITWISE_MASK, mask.data(), mask.size());
			nftnl_expr_set(e, NFTNL_EXPR_BITWISE_XOR, zero.data(), zero.size());
			return key;
		}
		const Json &p = left.at("payload");
		if (p.contains("protocol")) {
			const std::string &protocol = p.at("protocol").get_ref<const std::string &>();
			const std::string &name = p.at("field").get_ref<const std::string &>();
			const Field &f = field_of(protocol, name);
			x.needs(f);
			x.payload(f.base, f.offset, f.len);
			return {f.type, f.len};
		}
		const std::string &base = p.at("base").get_ref<const std::string &>();
		const unsigned offset = p.at("offset").get<unsigned>(), len = p.at("len").get<unsigned>();
		if (offset % 8 != 0 || len % 8 != 0 || len == 0 || len > 128)
			throw Unknown{};
		const uint32_t header = base == "ll" ? NFT_PAYLOAD_LL_HEADER
		    : base == "nh"                   ? NFT_PAYLOAD_NETWORK_HEADER
		    : base == "th"                   ? NFT_PAYLOAD_TRANSPORT_HEADER
		                                     : throw Unknown{};
		x.payload(header, offset / 8, len / 8);
		return {kInteger, len / 8};
	}

	void match(Exprs &x, const std::string &table, const Json &m)
	{
		const std::string &op = m.at("op").get_ref<const std::string &>();
		if (op != "==" && op != "!=")
			throw Unknown{};
		const bool equal = op == "==";
		const Key key = load(x, m.at("left"));
		const Json &right = m.at("right");
		if (right.is_string() && right.get_ref<const std::string &>().rfind('@', 0) == 0) {
			const std::string name = right.get<std::string>().substr(1);
			const auto it = named_.find(table + "\n" + name);
			lookup(x, name, it == named_.end() ? 0 : it->second, equal);
		} else {
			const Bytes value = value_of(right, key.type, key.len);
			x.cmp(equal ? NFT_CMP_EQ : NFT_CMP_NEQ, value.data(), value.size());
		}
	}

	void lookup(Exprs &x, const std::string &name, uint32_t id, bool equal)
	{
		nftnl_expr *e = x.add("lookup");
		nftnl_expr_set_u32(e, NFTNL_EXPR_LOOKUP_SREG, NFT_REG_1);
		nftnl_expr_set_str(e, NFTNL_EXPR_LOOKUP_SET, name.c_str());
		if (id != 0)
			nftnl_expr_set_u32(e, NFTNL_EXPR_LOOKUP_SET_ID, id);
		if (!equal)
			nftnl_expr_set_u32(e, NFTNL_EXPR_LOOKUP_FLAGS, NFT_LOOKUP_F_INV);
	}

	void verdict(Exprs &x, int code, const std::string &chain = "")
	{
		nftnl_expr *e = x.add("immediate");
		nftnl_expr_set_u32(e, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
		nftnl_expr_set_u32(e, NFTNL_EXPR_IMM_VERDICT, static_cast<uint32_t>(code));
		if (!chain.empty())
			nftnl_expr_set_str(e, NFTNL_EXPR_IMM_CHAIN, chain.c_str());
	}

	// "meta priority set MAJOR:MINOR" (hexadecimal, as a class handle is written).
	void set_priority(Exprs &x, const Json &mangle)
	{
		if (mangle.at("key") != Json{{"meta", {{"key", "priority"}}}})
			throw Unknown{};
		const std::string &text = mangle.at("value").get_ref<const std::string &>();
		unsigned major = 0, minor = 0;
		char end;
		if (std::sscanf(text.c_str(), "%x:%x%c", &major, &minor, &end) != 2 || major > 0xffff || minor > 0xffff)
			throw Unknown{};
		const uint32_t handle = major << 16 | minor;
		nftnl_expr *e = x.add("immediate");
		nftnl_expr_set_u32(e, NFTNL_EXPR_IMM_DREG, NFT_REG_1);
		nftnl_expr_set(e, NFTNL_EXPR_IMM_DATA, &handle, sizeof(handle));
		e = x.add("meta");
		nftnl_expr_set_u32(e, NFTNL_EXPR_META_KEY, NFT_META_PRIORITY);
		nftnl_expr_set_u32(e, NFTNL_EXPR_META_SREG, NFT_REG_1);
	}

	void rule(const Json &o)
	{
		const std::string &table = o.at("table").get_ref<const std::string &>();
		RulePtr r(nftnl_rule_alloc());
		nftnl_rule_set_str(r.get(), NFTNL_RULE_TABLE, table.c_str());
		nftnl_rule_set_str(r.get(), NFTNL_RULE_CHAIN, o.at("chain").get_ref<const std::string &>().c_str());
		nftnl_rule_set_u32(r.get(), NFTNL_RULE_FAMILY, NFPROTO_NETDEV);
		Exprs x(r.get());
		for (const Json &stmt : o.at("expr")) {
			if (!stmt.is_object() || stmt.size() != 1)
				throw Unknown{};
			const std::string &kind = stmt.begin().key();
			const Json &arg = stmt.begin().value();
			if (kind == "match")
				match(x, table, arg);
			else if (kind == "counter" && arg.is_null())
				x.add("counter");
			else if (kind == "drop" && arg.is_null())
				verdict(x, NF_DROP);
			else if (kind == "accept" && arg.is_null())
				verdict(x, NF_ACCEPT);
			else if (kind == "return" && arg.is_null())
				verdict(x, NFT_RETURN);
			else if (kind == "jump" || kind == "goto")
				verdict(x, kind == "jump" ? NFT_JUMP : NFT_GOTO, arg.at("target").get<std::string>());
			else if (kind == "mangle")
				set_priority(x, arg);
			else
				throw Unknown{};
		}
		if (o.contains("comment")) {
			const std::string &comment = o.at("comment").get_ref<const std::string &>();
			UdataPtr ud(nftnl_udata_buf_alloc(comment.size() + 16));
			if (comment.size() > 128 ||
			    !nftnl_udata_put_strz(ud.get(), NFTNL_UDATA_RULE_COMMENT, comment.c_str()))
				throw Unknown{};
			nftnl_rule_set_data(r.get(), NFTNL_RULE_USERDATA, nftnl_udata_buf_data(ud.get()),
			    nftnl_udata_buf_len(ud.get()));
		}
		wire_.message(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, 8192,
		    [&](nlmsghdr *nlh) { nftnl_rule_nlmsg_build_payload(nlh, r.get()); });
	}

	Wire wire_;
	uint32_t set_ids_ = 0;
	std::map<std::string, uint32_t> named_;  // "TABLE\nSET" to the id of the batch's own
};

struct SocketClose {
	void operator()(mnl_socket *nl) const { mnl_socket_close(nl); }
};

// Sends the batch and reads what the kernel answered: it works through a batch within
// the send, so every answer is waiting by the time the send returns, and none but an
// error is asked for.
Direct send(const std::vector<char> &batch)
{
	std::unique_ptr<mnl_socket, SocketClose> nl(mnl_socket_open(NETLINK_NETFILTER));
	if (nl == nullptr || mnl_socket_bind(nl.get(), 0, MNL_SOCKET_AUTOPID) < 0)
		return Direct::Refused;
	const int fd = mnl_socket_get_fd(nl.get());
	if (batch.size() > 128 * 1024) {
		const int size = static_cast<int>(batch.size() * 2);
		(void)setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size));
	}
	if (mnl_socket_sendto(nl.get(), batch.data(), batch.size()) < 0)
		return Direct::Refused;
	const uint32_t portid = mnl_socket_get_portid(nl.get());
	std::vector<char> answer(MNL_SOCKET_BUFFER_SIZE);
	for (;;) {
		const ssize_t n = recv(fd, answer.data(), answer.size(), MSG_DONTWAIT);
		if (n < 0)
			return errno == EAGAIN || errno == EWOULDBLOCK ? Direct::Done : Direct::Refused;
		if (mnl_cb_run(answer.data(), static_cast<size_t>(n), 0, portid, nullptr, nullptr) < 0)
			return Direct::Refused;
	}
}

}  // namespace

Direct run_direct(const nlohmann::json &batch)
{
	std::vector<char> wire;
	try {
		Compiler c;
		for (const Json &command : batch.at("nftables"))
			c.command(command);
		wire = c.done();
	} catch (const Unknown &) {
		return Direct::Unsupported;
	} catch (const Json::exception &) {
		return Direct::Unsupported;
	}
	return send(wire);
}

}  // namespace wexo::nft
