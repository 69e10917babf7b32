// Link bandwidth text, the value of a link's "maxbw" property.
#pragma once

#include <cstdint>

extern "C" {

// Parses a bandwidth: a decimal number, optionally with a fraction ("1.5"), then an
// optional unit K, M or G (either case; kilo-, mega- or gigabits per second, powers of
// 1000). Without a unit the number counts megabits, as link bandwidth is usually given.
// The result in bits per second must be at least 1 and fit in 64 bits; nothing may
// follow the unit. Stores it in *bps when given.
bool wexo_str2bw(const char *text, uint64_t *bps);

}
