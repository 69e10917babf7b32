#include "value_set.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <limits>

#include "range.h"

namespace kel {
namespace {

constexpr Value kMax = std::numeric_limits<Value>::max();

}  // namespace

bool ValueSet::value_of(const std::string &text, int type, Value *out)
{
	if (type == KEL_RANGE_NUMBER) {
		if (text.empty() || text.size() > 20 ||
		    !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); }))
			return false;
		Value v = 0;
		for (char c : text)
			v = v * 10 + static_cast<unsigned>(c - '0');
		*out = v;
		return true;
	}
	unsigned char bytes[16];
	const int af = type == KEL_RANGE_IPV4 ? AF_INET : AF_INET6;
	if (inet_pton(af, text.c_str(), bytes) != 1)
		return false;
	Value v = 0;
	for (int i = 0; i < (af == AF_INET ? 4 : 16); i++)
		v = (v << 8) | bytes[i];
	*out = v;
	return true;
}

bool ValueSet::parse(const char *text, int type, ValueSet *out)
{
	*out = ValueSet(type);
	for (const KelRangeElement &e : kel_range_elements(text != nullptr ? text : "")) {
		Value lo, hi;
		if (!value_of(e.start, type, &lo) || !value_of(e.end, type, &hi) || lo > hi)
			return false;
		out->add(lo, hi);
	}
	return true;
}

void ValueSet::add(Value lo, Value hi)
{
	// Merge with every span that overlaps or touches [lo, hi].
	auto first = std::lower_bound(spans_.begin(), spans_.end(), lo,
	    [](const std::pair<Value, Value> &s, Value v) { return s.second < v && s.second + 1 < v; });
	auto last = first;
	while (last != spans_.end() && (hi == kMax || last->first <= hi + 1)) {
		lo = std::min(lo, last->first);
		hi = std::max(hi, last->second);
		++last;
	}
	first = spans_.erase(first, last);
	spans_.insert(first, {lo, hi});
}

ValueSet ValueSet::unite(const ValueSet &other) const
{
	ValueSet out = *this;
	for (const auto &[lo, hi] : other.spans_)
		out.add(lo, hi);
	return out;
}

ValueSet ValueSet::minus(const ValueSet &other) const
{
	ValueSet out(type_);
	auto cut = other.spans_.begin();
	for (auto [lo, hi] : spans_) {
		while (cut != other.spans_.end() && cut->second < lo)
			++cut;
		for (auto c = cut; c != other.spans_.end() && c->first <= hi; ++c) {
			if (c->first > lo)
				out.spans_.push_back({lo, c->first - 1});
			if (c->second >= hi) {
				lo = 1;
				hi = 0;  // nothing left of this span
				break;
			}
			lo = c->second + 1;
		}
		if (lo <= hi)
			out.spans_.push_back({lo, hi});
	}
	return out;
}

ValueSet ValueSet::intersect(const ValueSet &other) const
{
	return minus(minus(other));
}

bool ValueSet::has(Value v) const
{
	auto it = std::lower_bound(spans_.begin(), spans_.end(), v,
	    [](const std::pair<Value, Value> &s, Value x) { return s.second < x; });
	return it != spans_.end() && it->first <= v;
}

Value ValueSet::count() const
{
	Value n = 0;
	for (const auto &[lo, hi] : spans_) {
		const Value width = hi - lo;
		if (width == kMax || n > kMax - width - 1)
			return kMax;
		n += width + 1;
	}
	return n;
}

std::string ValueSet::value_text(Value v) const
{
	if (type_ == KEL_RANGE_NUMBER) {
		std::string digits;
		do {
			digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(v % 10)));
			v /= 10;
		} while (v != 0);
		return digits;
	}
	const int af = type_ == KEL_RANGE_IPV4 ? AF_INET : AF_INET6;
	const int len = af == AF_INET ? 4 : 16;
	unsigned char bytes[16];
	for (int i = len - 1; i >= 0; i--, v >>= 8)
		bytes[i] = static_cast<unsigned char>(v & 0xff);
	char buf[INET6_ADDRSTRLEN];
	return inet_ntop(af, bytes, buf, sizeof(buf)) != nullptr ? buf : "";
}

std::string ValueSet::text() const
{
	std::string out;
	for (const auto &[lo, hi] : spans_) {
		if (!out.empty())
			out += ",";
		out += value_text(lo);
		if (hi != lo)
			out += "-" + value_text(hi);
	}
	return out;
}

}  // namespace kel
