// Byte-level pieces of the frames the host's address responder reads and writes:
// big-endian fields, the Internet checksum and the Ethernet header. Header-only, shared
// by the DHCPv4 and the DHCPv6/router-advertisement codecs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kel::frame {

using Mac = std::array<uint8_t, 6>;

inline uint16_t get16(const uint8_t *p)
{
	return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
inline uint32_t get32(const uint8_t *p)
{
	return static_cast<uint32_t>(get16(p)) << 16 | get16(p + 2);
}

inline void put16(std::vector<uint8_t> *out, uint16_t v)
{
	out->push_back(static_cast<uint8_t>(v >> 8));
	out->push_back(static_cast<uint8_t>(v));
}

inline void put32(std::vector<uint8_t> *out, uint32_t v)
{
	put16(out, static_cast<uint16_t>(v >> 16));
	put16(out, static_cast<uint16_t>(v));
}

inline void put_bytes(std::vector<uint8_t> *out, const void *p, size_t n)
{
	const auto *b = static_cast<const uint8_t *>(p);
	out->insert(out->end(), b, b + n);
}

inline void put_mac(std::vector<uint8_t> *out, const Mac &m)
{
	out->insert(out->end(), m.begin(), m.end());
}

// The one's complement sum of `len` bytes from `p`, added to `sum` (not folded), so that
// a pseudo-header and a payload can be summed in parts.
inline uint32_t sum16(const uint8_t *p, size_t len, uint32_t sum = 0)
{
	for (size_t i = 0; i + 1 < len; i += 2)
		sum += get16(p + i);
	if (len % 2 != 0)
		sum += static_cast<uint32_t>(p[len - 1]) << 8;
	return sum;
}

// The Internet checksum of a sum from sum16.
inline uint16_t fold(uint32_t sum)
{
	while (sum >> 16)
		sum = (sum & 0xffff) + (sum >> 16);
	return static_cast<uint16_t>(~sum);
}

inline void ethernet(std::vector<uint8_t> *out, const Mac &dst, const Mac &src, uint16_t type)
{
	put_mac(out, dst);
	put_mac(out, src);
	put16(out, type);
}

}  // namespace kel::frame
