#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <cstring>
#include <string_view>

#include "kelnet.h"

namespace {

constexpr size_t kMaxHostName = 253;
constexpr size_t kMaxLabel = 63;
constexpr size_t kMaxLinkName = 15;  // IFNAMSIZ less the terminator
constexpr size_t kMaxNsName = 255;   // a file name under /run/netns

bool alnum(char c)
{
	return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

bool digit(char c)
{
	return c >= '0' && c <= '9';
}

bool valid_label(std::string_view label)
{
	if (label.empty() || label.size() > kMaxLabel || label.front() == '-' || label.back() == '-')
		return false;
	for (char c : label)
		if (!alnum(c) && c != '-')
			return false;
	return true;
}

// A link or namespace name: letters, digits, '_', '-', '.'; not "." or "..".
bool valid_node_name(std::string_view name, size_t maxlen)
{
	if (name.empty() || name.size() > maxlen || name == "." || name == "..")
		return false;
	for (char c : name)
		if (!alnum(c) && c != '_' && c != '-' && c != '.')
			return false;
	return true;
}

void copy_out(std::string_view text, char *buf, size_t len)
{
	if (buf == nullptr || len == 0)
		return;
	const size_t n = text.size() < len ? text.size() : len - 1;
	if (n != 0)
		std::memcpy(buf, text.data(), n);
	buf[n] = '\0';
}

}  // namespace

extern "C" {

bool valid_hostname(const char *name)
{
	if (name == nullptr)
		return false;
	std::string_view rest(name);
	if (!rest.empty() && rest.back() == '.')
		rest.remove_suffix(1);
	if (rest.empty() || rest.size() > kMaxHostName)
		return false;
	for (;;) {
		const size_t dot = rest.find('.');
		if (!valid_label(rest.substr(0, dot)))
			return false;
		if (dot == std::string_view::npos)
			return true;
		rest.remove_prefix(dot + 1);
	}
}

bool dlparse_drvppa(const char *name, char *driver, size_t driverlen, uint32_t *ppa)
{
	if (name == nullptr)
		return false;
	std::string_view text(name);
	if (text.size() < 2 || text.size() > kMaxLinkName || !std::isalpha(static_cast<unsigned char>(text[0])))
		return false;
	size_t start = text.size();
	while (start > 0 && digit(text[start - 1]))
		start--;
	const std::string_view drv = text.substr(0, start), number = text.substr(start);
	// "net01" is not an instance number; nor is a number past 32 bits.
	if (drv.empty() || number.empty() || (number.size() > 1 && number[0] == '0') || number.size() > 10)
		return false;
	for (char c : drv)
		if (!alnum(c) && c != '_' && c != '.')
			return false;
	unsigned long long value = 0;
	for (char c : number)
		value = value * 10 + static_cast<unsigned>(c - '0');
	if (value > UINT32_MAX)
		return false;
	copy_out(drv, driver, driverlen);
	if (ppa != nullptr)
		*ppa = static_cast<uint32_t>(value);
	return true;
}

bool dlparse_zonelinkname(const char *name, char *link, size_t linklen, char *ns, size_t nslen) noexcept
{
	if (name == nullptr)
		return false;
	std::string_view text(name), nspart;
	if (const size_t slash = text.find('/'); slash != std::string_view::npos) {
		nspart = text.substr(0, slash);
		text.remove_prefix(slash + 1);
		if (!valid_node_name(nspart, kMaxNsName))
			return false;
	}
	if (!valid_node_name(text, kMaxLinkName))
		return false;
	copy_out(text, link, linklen);
	copy_out(nspart, ns, nslen);
	return true;
}

bool sockaddrunspec(const struct sockaddr *sa)
{
	if (sa == nullptr)
		return false;
	if (sa->sa_family == AF_INET) {
		const auto *sin = reinterpret_cast<const struct sockaddr_in *>(sa);
		return sin->sin_addr.s_addr == htonl(INADDR_ANY);
	}
	if (sa->sa_family == AF_INET6) {
		const auto *sin6 = reinterpret_cast<const struct sockaddr_in6 *>(sa);
		return IN6_IS_ADDR_UNSPECIFIED(&sin6->sin6_addr);
	}
	return false;
}

}  // extern "C"
