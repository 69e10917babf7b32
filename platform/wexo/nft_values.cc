#include "nft_values.h"

#include <arpa/inet.h>
#include <linux/netfilter/nf_tables.h>
#include <netinet/in.h>

#include <cstdio>

namespace wexo::nft {
namespace {

using Json = nlohmann::json;

const Field kFields[] = {
    {"ether", "saddr", NFT_PAYLOAD_LL_HEADER, 6, 6, kEtherAddr, Needs::Ethernet, 0, 0},
    {"ether", "type", NFT_PAYLOAD_LL_HEADER, 12, 2, kEtherType, Needs::Ethernet, 0, 0},
    {"ip", "saddr", NFT_PAYLOAD_NETWORK_HEADER, 12, 4, kIpAddr, Needs::Network, kIp, 0},
    {"arp", "htype", NFT_PAYLOAD_NETWORK_HEADER, 0, 2, kArpHrd, Needs::Network, kArp, 0},
    {"arp", "ptype", NFT_PAYLOAD_NETWORK_HEADER, 2, 2, kEtherType, Needs::Network, kArp, 0},
    {"arp", "hlen", NFT_PAYLOAD_NETWORK_HEADER, 4, 1, kInteger, Needs::Network, kArp, 0},
    {"arp", "plen", NFT_PAYLOAD_NETWORK_HEADER, 5, 1, kInteger, Needs::Network, kArp, 0},
    {"arp", "operation", NFT_PAYLOAD_NETWORK_HEADER, 6, 2, kArpOp, Needs::Network, kArp, 0},
    {"arp", "saddr ether", NFT_PAYLOAD_NETWORK_HEADER, 8, 6, kEtherAddr, Needs::Network, kArp, 0},
    {"arp", "saddr ip", NFT_PAYLOAD_NETWORK_HEADER, 14, 4, kIpAddr, Needs::Network, kArp, 0},
    {"ip6", "length", NFT_PAYLOAD_NETWORK_HEADER, 4, 2, kInteger, Needs::Network, kIp6, 0},
    {"ip6", "nexthdr", NFT_PAYLOAD_NETWORK_HEADER, 6, 1, kInetProto, Needs::Network, kIp6, 0},
    {"ip6", "saddr", NFT_PAYLOAD_NETWORK_HEADER, 8, 16, kIp6Addr, Needs::Network, kIp6, 0},
    // UDP is the same over either IP version: nftables checks the transport alone.
    {"udp", "sport", NFT_PAYLOAD_TRANSPORT_HEADER, 0, 2, kInetService, Needs::Transport, 0, IPPROTO_UDP},
    {"udp", "dport", NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2, kInetService, Needs::Transport, 0, IPPROTO_UDP},
    {"icmp", "type", NFT_PAYLOAD_TRANSPORT_HEADER, 0, 1, kIcmpType, Needs::Transport, kIp, IPPROTO_ICMP},
    {"icmpv6", "type", NFT_PAYLOAD_TRANSPORT_HEADER, 0, 1, kIcmp6Type, Needs::Transport, kIp6, IPPROTO_ICMPV6},
};

// The names nftables gives values of a type, among those the fabric's rules use.
struct Symbol {
	KeyType type;
	const char *name;
	uint32_t value;
};
const Symbol kSymbols[] = {
    {kEtherType, "ip", kIp},
    {kEtherType, "arp", kArp},
    {kEtherType, "ip6", kIp6},
    {kEtherType, "8021q", 0x8100},
    {kEtherType, "8021ad", 0x88a8},
    {kIcmpType, "redirect", 5},
    {kArpOp, "request", 1},
    {kArpOp, "reply", 2},
    {kInetProto, "ipv6-icmp", IPPROTO_ICMPV6},
    {kInetProto, "udp", IPPROTO_UDP},
    {kIcmp6Type, "mld-listener-report", 131},
    {kIcmp6Type, "nd-router-advert", 134},
    {kIcmp6Type, "nd-neighbor-solicit", 135},
    {kIcmp6Type, "nd-neighbor-advert", 136},
    {kIcmp6Type, "nd-redirect", 137},
    {kIcmp6Type, "mld2-listener-report", 143},
};

Bytes big_endian(uint64_t value, uint32_t len)
{
	if (len < 8 && value >> (8 * len) != 0)
		throw Unknown{};
	Bytes out(len);
	for (uint32_t i = len; i-- > 0; value >>= 8)
		out[i] = static_cast<uint8_t>(value);
	return out;
}

int hex_digit(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	if (c >= 'a' && c <= 'f')
		return c - 'a' + 10;
	if (c >= 'A' && c <= 'F')
		return c - 'A' + 10;
	throw Unknown{};
}

}  // namespace

const Field &field_of(const std::string &protocol, const std::string &name)
{
	for (const Field &f : kFields)
		if (protocol == f.protocol && name == f.name)
			return f;
	throw Unknown{};
}

Bytes value_of(const Json &v, KeyType type, uint32_t len)
{
	if (v.is_number_integer()) {
		if (v.get<int64_t>() < 0 && !v.is_number_unsigned())
			throw Unknown{};
		return big_endian(v.get<uint64_t>(), len);
	}
	if (!v.is_string())
		throw Unknown{};
	const std::string &text = v.get_ref<const std::string &>();
	Bytes out(len);
	if (text.rfind("0x", 0) == 0) {
		if (text.size() != 2 + 2 * len)
			throw Unknown{};
		for (uint32_t i = 0; i < len; i++)
			out[i] = static_cast<uint8_t>(hex_digit(text[2 + 2 * i]) << 4 | hex_digit(text[3 + 2 * i]));
		return out;
	}
	if ((type == kIpAddr && len == 4 && inet_pton(AF_INET, text.c_str(), out.data()) == 1) ||
	    (type == kIp6Addr && len == 16 && inet_pton(AF_INET6, text.c_str(), out.data()) == 1))
		return out;
	if (type == kEtherAddr && len == 6) {
		unsigned b[6];
		char end;
		if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5],
		        &end) != 6)
			throw Unknown{};
		std::copy(b, b + 6, out.begin());
		return out;
	}
	for (const Symbol &s : kSymbols)
		if (s.type == type && text == s.name)
			return big_endian(s.value, len);
	throw Unknown{};
}

Key named_key(const std::string &type)
{
	if (type == "ipv4_addr")
		return {kIpAddr, 4};
	if (type == "ipv6_addr")
		return {kIp6Addr, 16};
	if (type == "ether_addr")
		return {kEtherAddr, 6};
	throw Unknown{};
}

std::pair<Bytes, Bytes> range_of(const Json &e, const Key &key)
{
	Json addr = e;
	unsigned len = key.len * 8;
	if (e.is_object()) {
		const Json &p = e.at("prefix");
		addr = p.at("addr");
		len = p.at("len").get<unsigned>();
		if (len > key.len * 8)
			throw Unknown{};
	}
	Bytes first = value_of(addr, key.type, key.len), last = first;
	for (unsigned bit = len; bit < key.len * 8; bit++) {
		const uint8_t mask = static_cast<uint8_t>(0x80u >> (bit % 8));
		first[bit / 8] &= static_cast<uint8_t>(~mask);
		last[bit / 8] |= mask;
	}
	return {first, last};
}

bool increment(Bytes *b)
{
	for (size_t i = b->size(); i-- > 0;)
		if (++(*b)[i] != 0)
			return true;
	return false;
}

void decrement(Bytes *b)
{
	for (size_t i = b->size(); i-- > 0;)
		if ((*b)[i]-- != 0)
			return;
}

}  // namespace wexo::nft
