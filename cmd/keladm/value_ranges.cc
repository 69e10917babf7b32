#include "value_ranges.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>

namespace keladm {

bool ValueRanges::key_of(const std::string &text, Key *key)
{
	const std::string value = text.substr(0, text.find('/'));
	key->fill(0);
	if (!value.empty() && value.find_first_not_of("0123456789") == std::string::npos) {
		unsigned long long n = std::strtoull(value.c_str(), nullptr, 10);
		for (int i = 15; i >= 8; i--, n >>= 8)
			(*key)[static_cast<size_t>(i)] = static_cast<unsigned char>(n & 0xff);
		return value.size() <= 19;
	}
	// IPv4 addresses sort as IPv4-mapped IPv6 addresses: one order for both families.
	unsigned char v4[4];
	if (inet_pton(AF_INET, value.c_str(), v4) == 1) {
		(*key)[10] = (*key)[11] = 0xff;
		std::copy(v4, v4 + 4, key->begin() + 12);
		return true;
	}
	return inet_pton(AF_INET6, value.c_str(), key->data()) == 1;
}

bool ValueRanges::parse(const std::string &text)
{
	spans_.clear();
	for (size_t pos = 0; pos <= text.size();) {
		size_t comma = text.find(',', pos);
		if (comma == std::string::npos)
			comma = text.size();
		const std::string element = text.substr(pos, comma - pos);
		const size_t dash = element.find('-');
		Key lo, hi;
		if (!key_of(element.substr(0, dash), &lo) ||
		    !key_of(dash == std::string::npos ? element : element.substr(dash + 1), &hi))
			return false;
		spans_.emplace_back(lo, hi);
		pos = comma + 1;
	}
	return !spans_.empty();
}

bool ValueRanges::contains(const std::string &value) const
{
	Key key;
	if (!key_of(value, &key))
		return false;
	for (const auto &[lo, hi] : spans_)
		if (lo <= key && key <= hi)
			return true;
	return false;
}

}  // namespace keladm
