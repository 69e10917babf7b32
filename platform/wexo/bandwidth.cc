#include "bandwidth.h"

#include <cctype>

namespace {

bool digit(char c)
{
	return c >= '0' && c <= '9';
}

}  // namespace

extern "C" bool wexo_str2bw(const char *text, uint64_t *bps) noexcept
{
	if (text == nullptr || !digit(*text))
		return false;
	// Whole and fractional digits are kept as one integer and a decimal scale, so that
	// "1.5G" is exact without floating point.
	unsigned __int128 mantissa = 0;
	int fraction_digits = 0;
	const char *p = text;
	for (; digit(*p); p++) {
		mantissa = mantissa * 10 + static_cast<unsigned>(*p - '0');
		if (mantissa > UINT64_MAX)
			return false;
	}
	if (*p == '.') {
		p++;
		if (!digit(*p))
			return false;
		for (; digit(*p); p++, fraction_digits++) {
			if (fraction_digits == 9)
				return false;  // finer than one bit per second at any unit
			mantissa = mantissa * 10 + static_cast<unsigned>(*p - '0');
		}
	}
	uint64_t unit = 1000 * 1000;
	switch (std::toupper(static_cast<unsigned char>(*p))) {
	case 'K':
		unit = 1000;
		p++;
		break;
	case 'M':
		unit = 1000 * 1000;
		p++;
		break;
	case 'G':
		unit = 1000 * 1000 * 1000;
		p++;
		break;
	case '\0': break;
	default: return false;
	}
	if (*p != '\0')
		return false;
	unsigned __int128 value = mantissa * unit;
	for (int i = 0; i < fraction_digits; i++) {
		if (value % 10 != 0)
			return false;  // a fraction of a bit per second
		value /= 10;
	}
	if (value == 0 || value > UINT64_MAX)
		return false;
	if (bps != nullptr)
		*bps = static_cast<uint64_t>(value);
	return true;
}
