// Decimal numbers in property values and range texts.
#pragma once

namespace kel {

// Reads a base-10 number as strtol does (leading blanks and a sign allowed), with
// nothing after it; "" reads as 0. False when it overflows a long or has trailing text.
bool parse_long(const char *text, long *value);

}  // namespace kel
