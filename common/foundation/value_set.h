// A set of values of one range type (numbers, IPv4 or IPv6 addresses) held as sorted,
// disjoint intervals of 128-bit integers: set algebra over range-set strings without
// expanding them, so that a /8 pool or a range of sixteen million VNIs costs as little
// as its text.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kel {

using Value = unsigned __int128;

class ValueSet {
public:
	explicit ValueSet(int type) : type_(type) {}

	// The set a range-set string names; elements may come in any order and overlap.
	// false when an element does not parse for the type.
	static bool parse(const char *text, int type, ValueSet *out);
	// One value's text as a number or address of `type`; false when it does not parse.
	static bool value_of(const std::string &text, int type, Value *out);

	void add(Value lo, Value hi);
	void add(Value v) { add(v, v); }
	ValueSet unite(const ValueSet &other) const;
	ValueSet minus(const ValueSet &other) const;
	ValueSet intersect(const ValueSet &other) const;
	bool contains(const ValueSet &other) const { return other.minus(*this).empty(); }
	bool has(Value v) const;
	bool empty() const { return spans_.empty(); }
	// How many values it holds (saturating at the largest Value).
	Value count() const;
	// The normalised range-set string: rising, merged elements as the store keeps them.
	std::string text() const;
	bool operator==(const ValueSet &other) const { return spans_ == other.spans_; }

private:
	std::string value_text(Value v) const;

	int type_;
	std::vector<std::pair<Value, Value>> spans_;  // sorted, disjoint, not touching
};

}  // namespace kel
