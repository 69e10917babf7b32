#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelnet.h"

namespace {

// The longest link-layer address in use (IP over InfiniBand).
constexpr int kMaxOctets = 20;

int hex_value(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
	return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

}  // namespace

extern "C" unsigned char *_link_aton(const char *text, int *lenp)
{
	unsigned char octets[kMaxOctets];
	int n = 0;
	const char *p = text;
	*lenp = -1;
	if (p == nullptr)
		return nullptr;
	for (;;) {
		int hi = hex_value(p[0]);
		if (hi < 0 || n == kMaxOctets)
			return nullptr;
		int value = hi;
		p++;
		if (int lo = hex_value(*p); lo >= 0) {
			value = hi * 16 + lo;
			p++;
		}
		octets[n++] = static_cast<unsigned char>(value);
		if (*p == '\0')
			break;
		if (*p++ != ':')
			return nullptr;
	}
	auto *bytes = static_cast<unsigned char *>(std::malloc(n));
	if (bytes == nullptr) {
		*lenp = 0;
		return nullptr;
	}
	std::memcpy(bytes, octets, n);
	*lenp = n;
	return bytes;
}

extern "C" char *_link_ntoa(const unsigned char *addr, char *buf, int len, int /* type */)
{
	if (len <= 0)
		len = 0;
	// Each octet takes at most two digits and a separator or the terminator.
	const size_t size = len == 0 ? 1 : 3 * static_cast<size_t>(len);
	if (buf == nullptr && (buf = static_cast<char *>(std::malloc(size))) == nullptr)
		return nullptr;
	size_t n = 0;
	buf[0] = '\0';
	for (int i = 0; i < len; i++)
		n += std::snprintf(buf + n, size - n, i == 0 ? "%x" : ":%x", addr[i]);
	return buf;
}
