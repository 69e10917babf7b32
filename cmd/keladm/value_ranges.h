// Range-set texts as keladm reads them ("100-199,300", or the same of IPv4 or IPv6
// addresses): which values in use a new range would leave out, and how many values a
// range, a share of it or a pool holds, all worked out on the intervals, never value by
// value, so that a /8 pool or a range of 16 million VNIs costs what its text does.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace keladm {

// Numbers and addresses as one kind of value: IPv4 addresses as IPv4-mapped IPv6 ones.
using Value = unsigned __int128;

class ValueRanges {
public:
	// False for a text that is not a range set of numbers or addresses. "" is the empty set.
	bool parse(const std::string &text);
	// Whether `value` (a number or an address, "/prefix" ignored) lies in the set.
	bool contains(const std::string &value) const;
	// How many values the set holds (at most 2^128 - 1).
	Value count() const;
	// The values of this set that are not in `other`, and those that are.
	ValueRanges minus(const ValueRanges &other) const;
	ValueRanges within(const ValueRanges &other) const;

	// A value as decimal digits.
	static std::string decimal(Value v);
	// `text` (a number or an address) as a value; false when it is neither.
	static bool value_of(const std::string &text, Value *out);

private:
	void normalise();
	std::vector<std::pair<Value, Value>> spans_;  // rising, disjoint, not touching
};

}  // namespace keladm
