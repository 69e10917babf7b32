// Range-set texts as keladm reads them ("100-199,300", or the same of IPv4 or IPv6
// addresses), to say which values in use a new range would leave out.
#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

namespace keladm {

class ValueRanges {
public:
	// False for a text that is not a range set of numbers or addresses.
	bool parse(const std::string &text);
	// Whether `value` (a number or an address, "/prefix" ignored) lies in the set.
	bool contains(const std::string &value) const;

private:
	using Key = std::array<unsigned char, 16>;	// numbers and addresses, big-endian
	static bool key_of(const std::string &value, Key *key);
	std::vector<std::pair<Key, Key>> spans_;
};

}  // namespace keladm
