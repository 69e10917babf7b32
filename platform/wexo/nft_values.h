// The values of the filter batches' vocabulary, read as nf_tables holds them: the
// header fields a match names, the names nftables gives their values, and set keys and
// address ranges as big-endian bytes. Shared by the batches sent (nft_direct) and the
// links read back (nft_read).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace wexo::nft {

using Bytes = std::vector<uint8_t>;

// Anything this does not build: the batch goes to libnftables instead.
struct Unknown {};

// nftables' own numbers for the types of a set's key, which its listings print by.
enum KeyType : uint32_t {
	kInteger = 4,
	kIpAddr = 7,
	kIp6Addr = 8,
	kEtherAddr = 9,
	kEtherType = 10,
	kArpOp = 11,
	kInetProto = 12,
	kInetService = 13,
	kIcmpType = 14,
	kArpHrd = 21,
	kIcmp6Type = 29,
};
// How nftables marks a key kept in network byte order.
constexpr uint32_t kBigEndian = 2;

// What a header field's match must first be sure of, as nftables checks it: a link
// header that is Ethernet, a network protocol, a transport protocol.
enum class Needs { Nothing, Ethernet, Network, Transport };

struct Field {
	const char *protocol, *name;
	uint32_t base, offset, len;  // bytes
	KeyType type;
	Needs needs;
	uint16_t network;   // the EtherType it needs, for Network and Transport (0: none)
	uint8_t transport;  // the IP protocol it needs, for Transport
};

constexpr uint16_t kIp = 0x0800, kArp = 0x0806, kIp6 = 0x86dd;

// The header field `name` of `protocol` ("ip", "saddr"); Unknown when the vocabulary
// has no such field.
const Field &field_of(const std::string &protocol, const std::string &name);

// A value of `len` bytes in network order, as the key of type `type` holds it: a
// number, a "0x" hex text of exactly `len` bytes, an address, or a name nftables gives
// it. Unknown otherwise.
Bytes value_of(const nlohmann::json &v, KeyType type, uint32_t len);

// One key's length and type, as a set of them is declared.
struct Key {
	KeyType type;
	uint32_t len;
};

// The key of a named set's type ("ipv4_addr", "ipv6_addr", "ether_addr").
Key named_key(const std::string &type);
// An element of an interval set (an address, or {"prefix": {"addr", "len"}}): its first
// and last address.
std::pair<Bytes, Bytes> range_of(const nlohmann::json &e, const Key &key);
// One more, one less, as big-endian numbers; increment is false when it wraps past the top.
bool increment(Bytes *b);
void decrement(Bytes *b);

}  // namespace wexo::nft
