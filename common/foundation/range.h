// Range-set strings: rising elements (a value, or start-end) joined by commas, over
// decimal numbers (type 0), IPv4 addresses (type 1) or IPv6 addresses (type 2). The text
// form in which every scarce value of the fabric is stored.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <string>
#include <vector>

#include <kel/libkel.h>

inline constexpr int KEL_RANGE_NUMBER = 0;
inline constexpr int KEL_RANGE_IPV4 = 1;
inline constexpr int KEL_RANGE_IPV6 = 2;

// Distance of ip1 from ip2: negative when lower, 0 when equal, 1 when ip1 directly
// follows ip2. IPv4 saturates at INT_MIN/INT_MAX; IPv6 is exact only within the last
// three bytes and INT_MIN/INT_MAX beyond. 0 for another family. Both must parse.
int kel_ipcmp(sa_family_t af, const char *ip1, const char *ip2);
// The first number minus the second.
int kel_numstrcmp(const char *a, const char *b);
// Distance of a from b for the range type.
int kel_rsrc_cmp(const char *a, const char *b, int type);
// The value after (+1) or before (-1) `value`, printed into `buf`; returns `buf`.
char *kel_rsrc_value(const char *value, int delta, char *buf, size_t size, int type);
// Splits an element in place at its first '-' (both point to the element without one).
void kel_str2range(char *element, char **startp, char **endp, int type);
// Appends one element (",start" or ",start-end"; no comma when *len is 0) to `buf`.
// *len grows by the full length even when the buffer is too small: nothing is written
// past `size`, and the caller tells an overflow by *len >= size.
void kel_print_range(const char *start, const char *end, char *buf, size_t size, int *len, int type);

// KEL_SUCCESS when `range` parses for its type, rises strictly, lies within [min, max]
// and no element holds `excluded` (KEL_E_RANGE_EXCLUSIVE); else KEL_E_INVALID_RANGE.
int kel_rsrc_valid_range(const char *range, int type, const char *min, const char *max, const char *excluded);
// Joins touching and overlapping neighbours of a rising range-set into `buf`.
// KEL_E_NOSPACE when the result does not fit.
int kel_rsrc_range_merge(const char *range, char *buf, size_t size, int type);
// The values of `a` that are not in `b`, normalised. With size >= 0, into the caller's
// buffer `out` (KEL_E_NOSPACE when it does not fit); with size < 0, into a new buffer
// stored in *(char **)out. Every element of `b` must lie within one element of `a`
// (elements above all of `a` are passed over); otherwise KEL_E_INVALID_RANGE.
int kel_rsrc_range_diff(const char *a, const char *b, void *out, int size, int type);
// KEL_SUCCESS when every element of `b` lies within one element of `a`, else
// KEL_E_RANGE_INUSE.
int kel_rsrc_range_contains(const char *a, const char *b, int type);

// One element of a range-set, split at its first '-' (start == end for a single value).
struct KelRangeElement {
	std::string start;
	std::string end;
	bool interval;  // written with a '-'
};

// The elements of a range-set in order; empty elements (doubled, leading or trailing
// commas) are skipped.
std::vector<KelRangeElement> kel_range_elements(const char *range);
// The text of one element: "start" when start and end are the same value, else
// "start-end".
std::string kel_range_element_text(const std::string &start, const std::string &end, int type);
