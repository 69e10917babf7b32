#include "value_ranges.h"

#include <arpa/inet.h>

#include <algorithm>

namespace keladm {

bool ValueRanges::value_of(const std::string &text, Value *out)
{
	const std::string v = text.substr(0, text.find('/'));
	if (!v.empty() && v.size() <= 20 && v.find_first_not_of("0123456789") == std::string::npos) {
		*out = 0;
		for (char c : v)
			*out = *out * 10 + static_cast<unsigned>(c - '0');
		return true;
	}
	unsigned char bytes[16];
	if (inet_pton(AF_INET, v.c_str(), bytes) == 1) {
		*out = Value(0xffff) << 32 | Value(bytes[0]) << 24 | Value(bytes[1]) << 16 | Value(bytes[2]) << 8 |
		    bytes[3];
		return true;
	}
	if (inet_pton(AF_INET6, v.c_str(), bytes) != 1)
		return false;
	*out = 0;
	for (unsigned char b : bytes)
		*out = *out << 8 | b;
	return true;
}

bool ValueRanges::parse(const std::string &text)
{
	spans_.clear();
	for (size_t pos = 0; pos < text.size();) {
		size_t comma = text.find(',', pos);
		if (comma == std::string::npos)
			comma = text.size();
		const std::string element = text.substr(pos, comma - pos);
		const size_t dash = element.find('-');
		Value lo, hi;
		if (!value_of(element.substr(0, dash), &lo) ||
		    !value_of(dash == std::string::npos ? element : element.substr(dash + 1), &hi) || hi < lo)
			return false;
		spans_.emplace_back(lo, hi);
		pos = comma + 1;
	}
	normalise();
	return true;
}

void ValueRanges::normalise()
{
	std::sort(spans_.begin(), spans_.end());
	std::vector<std::pair<Value, Value>> merged;
	for (const auto &span : spans_) {
		if (!merged.empty() && (merged.back().second == ~Value(0) || span.first <= merged.back().second + 1))
			merged.back().second = std::max(merged.back().second, span.second);
		else
			merged.push_back(span);
	}
	spans_ = std::move(merged);
}

bool ValueRanges::contains(const std::string &text) const
{
	Value v;
	if (!value_of(text, &v))
		return false;
	return std::any_of(spans_.begin(), spans_.end(), [v](const auto &s) { return s.first <= v && v <= s.second; });
}

Value ValueRanges::count() const
{
	Value total = 0;
	for (const auto &[lo, hi] : spans_) {
		const Value n = hi - lo + 1;  // 0 only for the whole space, which saturates below
		total = (n == 0 || total + n < total) ? ~Value(0) : total + n;
	}
	return total;
}

ValueRanges ValueRanges::within(const ValueRanges &other) const
{
	ValueRanges out;
	size_t j = 0;
	for (const auto &[lo, hi] : spans_) {
		while (j < other.spans_.size() && other.spans_[j].second < lo)
			j++;
		for (size_t k = j; k < other.spans_.size() && other.spans_[k].first <= hi; k++)
			out.spans_.emplace_back(std::max(lo, other.spans_[k].first),
			    std::min(hi, other.spans_[k].second));
	}
	return out;
}

ValueRanges ValueRanges::minus(const ValueRanges &other) const
{
	ValueRanges out;
	size_t j = 0;
	for (auto [lo, hi] : spans_) {
		while (j < other.spans_.size() && other.spans_[j].second < lo)
			j++;
		bool left = true;
		for (size_t k = j; k < other.spans_.size() && other.spans_[k].first <= hi; k++) {
			const auto &[olo, ohi] = other.spans_[k];
			if (olo > lo)
				out.spans_.emplace_back(lo, olo - 1);
			if (ohi >= hi) {
				left = false;
				break;
			}
			lo = ohi + 1;
		}
		if (left)
			out.spans_.emplace_back(lo, hi);
	}
	return out;
}

std::string ValueRanges::decimal(Value v)
{
	std::string digits;
	do {
		digits += static_cast<char>('0' + static_cast<int>(v % 10));
		v /= 10;
	} while (v != 0);
	return std::string(digits.rbegin(), digits.rend());
}

}  // namespace keladm
