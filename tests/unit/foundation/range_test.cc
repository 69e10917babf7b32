#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "range.h"

namespace {

constexpr int N = KEL_RANGE_NUMBER, V4 = KEL_RANGE_IPV4, V6 = KEL_RANGE_IPV6;

TEST(Range, Distances)
{
	struct {
		const char *a, *b;
		int type;
		int want;  // INT_MIN/INT_MAX exact, otherwise exact too
	} cases[] = {
	    {"5", "4", N, 1},
	    {"4", "5", N, -1},
	    {"10.0.0.1", "10.0.0.0", V4, 1},
	    {"10.0.0.0", "10.0.0.0", V4, 0},
	    {"255.255.255.255", "0.0.0.0", V4, INT_MAX},
	    {"0.0.0.0", "255.255.255.255", V4, INT_MIN},
	    {"2001:db8::1", "2001:db8::", V6, 1},
	    {"2001:db8:0:1::", "2001:db8::", V6, INT_MAX},
	    {"2001:db8::", "2001:db8:0:1::", V6, INT_MIN},
	    {"2001:db8::ff:ffff", "2001:db8::", V6, 16777215},
	    // Neighbours across the three-byte boundary are not seen as neighbours.
	    {"2001:db8::100:0", "2001:db8::ff:ffff", V6, INT_MAX},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.a) + " vs " + c.b);
		EXPECT_EQ(kel_rsrc_cmp(c.a, c.b, c.type), c.want);
	}
	EXPECT_LT(kel_rsrc_cmp("10.0.0.1", "200.0.0.1", V4), 0);
	EXPECT_EQ(kel_ipcmp(AF_UNIX, "x", "y"), 0);
}

TEST(Range, NextAndPreviousValues)
{
	struct {
		const char *value;
		int delta, type;
		const char *want;
	} cases[] = {
	    {"10.0.0.255", +1, V4, "10.0.1.0"},
	    {"10.0.1.0", -1, V4, "10.0.0.255"},
	    {"255.255.255.255", +1, V4, "0.0.0.0"},
	    {"2001:db8::ffff", +1, V6, "2001:db8::1:0"},
	    {"2001:db8::1:0", -1, V6, "2001:db8::ffff"},
	    {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", +1, V6, "::"},
	    {"::", -1, V6, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
	    {"0", -1, N, "-1"},
	    {"41", +1, N, "42"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.value);
		char buf[64];
		EXPECT_STREQ(kel_rsrc_value(c.value, c.delta, buf, sizeof(buf), c.type), c.want);
	}
}

TEST(Range, Validation)
{
	struct {
		const char *range;
		int type;
		const char *min, *max, *excluded;
		int rc;
	} cases[] = {
	    {"1-10,20,30-40", N, "1", "4094", nullptr, KEL_SUCCESS},
	    {"", N, "1", "4094", nullptr, KEL_SUCCESS},
	    {",", N, "1", "4094", nullptr, KEL_SUCCESS},
	    {"1-10,11-20", N, "1", "4094", nullptr, KEL_SUCCESS},
	    {"10-5", N, "1", "4094", nullptr, KEL_E_INVALID_RANGE},
	    {"5-5", N, "1", "4094", nullptr, KEL_E_INVALID_RANGE},
	    {"1-10,10-20", N, "1", "4094", nullptr, KEL_E_INVALID_RANGE},
	    {"20,10", N, "1", "4094", nullptr, KEL_E_INVALID_RANGE},
	    {"0-5", N, "1", "4094", nullptr, KEL_E_INVALID_RANGE},
	    {"4090-4095", N, "1", "4094", nullptr, KEL_E_INVALID_RANGE},
	    {"a", N, "1", "4094", nullptr, KEL_E_INVALID_RANGE},
	    {"5-", N, "1", "4094", nullptr, KEL_E_INVALID_RANGE},
	    {"10.0.0.1-10.0.0.9", V4, "10.0.0.1", "10.0.0.254", "10.0.0.1", KEL_E_RANGE_EXCLUSIVE},
	    {"10.0.0.2-10.0.0.9", V4, "10.0.0.1", "10.0.0.254", "10.0.0.1", KEL_SUCCESS},
	    {"10.0.0.2-10.0.0.255", V4, "10.0.0.1", "10.0.0.254", nullptr, KEL_E_INVALID_RANGE},
	    {"10.0.0.2-10.0.0", V4, "10.0.0.1", "10.0.0.254", nullptr, KEL_E_INVALID_RANGE},
	    {"2001:db8::2-2001:db8::9", V6, "2001:db8::1", "2001:db8::ffff", nullptr, KEL_SUCCESS},
	    {"2001:db8::10,2001:db8::5", V6, "2001:db8::1", "2001:db8::ffff", nullptr, KEL_E_INVALID_RANGE},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string("'") + c.range + "'");
		EXPECT_EQ(kel_rsrc_valid_range(c.range, c.type, c.min, c.max, c.excluded), c.rc);
	}
}

TEST(Range, Merge)
{
	struct {
		const char *range;
		int type;
		const char *want;
	} cases[] = {
	    {"1,2,3,5,7-9,10", N, "1-3,5,7-10"},
	    {"5,6", N, "5-6"},
	    {"1-5,3-4", N, "1-4"},
	    {"", N, ""},
	    {",,", N, ""},
	    {"1-3", N, "1-3"},
	    {"10.0.0.1,10.0.0.2", V4, "10.0.0.1-10.0.0.2"},
	    {"10.0.0.255,10.0.1.0", V4, "10.0.0.255-10.0.1.0"},
	    {"2001:db8::1,2001:db8::2,2001:db8::4", V6, "2001:db8::1-2001:db8::2,2001:db8::4"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string("'") + c.range + "'");
		char buf[128] = "junk";
		EXPECT_EQ(kel_rsrc_range_merge(c.range, buf, sizeof(buf), c.type), KEL_SUCCESS);
		EXPECT_STREQ(buf, c.want);
	}
}

TEST(Range, MergeNeverWritesPastTheBuffer)
{
	// "1-3,5,7-10" is 10 characters: 11 bytes fit, 10 do not, nor do 6 (last run).
	for (size_t size : {11u, 10u, 6u, 1u}) {
		SCOPED_TRACE(size);
		char buf[16];
		std::memset(buf, '#', sizeof(buf));
		EXPECT_EQ(kel_rsrc_range_merge("1,2,3,5,7-9,10", buf, size, N),
		    size == 11 ? KEL_SUCCESS : KEL_E_NOSPACE);
		EXPECT_EQ(buf[size], '#') << "written past the buffer";
	}
}

TEST(Range, Difference)
{
	struct {
		const char *a, *b;
		int type;
		const char *want;
	} cases[] = {
	    {"1-10", "3,5-6", N, "1-2,4,7-10"},
	    {"1-10", "1-3", N, "4-10"},
	    {"1-10", "8-10", N, "1-7"},
	    {"1-5,7-10", "7-8", N, "1-5,9-10"},
	    {"1-10", "", N, "1-10"},
	    {"1,2,3", "2", N, "1,3"},
	    {"1-10", "1-10", N, ""},
	    {"1-5,7-10", "20", N, "1-5,7-10"},  // above all of a: passed over
	    {"10.0.0.1-10.0.0.254", "10.0.0.254", V4, "10.0.0.1-10.0.0.253"},
	    {"10.0.0.1-10.0.1.10", "10.0.0.255-10.0.1.0", V4, "10.0.0.1-10.0.0.254,10.0.1.1-10.0.1.10"},
	    {"2001:db8::1-2001:db8::ffff", "2001:db8::10", V6, "2001:db8::1-2001:db8::f,2001:db8::11-2001:db8::ffff"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.a) + " - " + c.b);
		char buf[128];
		EXPECT_EQ(kel_rsrc_range_diff(c.a, c.b, buf, sizeof(buf), c.type), KEL_SUCCESS);
		EXPECT_STREQ(buf, c.want);
		char *owned = nullptr;
		EXPECT_EQ(kel_rsrc_range_diff(c.a, c.b, &owned, -1, c.type), KEL_SUCCESS);
		ASSERT_NE(owned, nullptr);
		EXPECT_STREQ(owned, c.want);
		std::free(owned);
	}
}

TEST(Range, DifferenceRefusesWhatItCannotAnswer)
{
	for (const char *b : {"0-2", "4-7", "6", "5-11"}) {
		SCOPED_TRACE(b);
		char buf[64];
		EXPECT_EQ(kel_rsrc_range_diff("1-5,7-10", b, buf, sizeof(buf), N), KEL_E_INVALID_RANGE);
		char *owned = reinterpret_cast<char *>(1);
		EXPECT_EQ(kel_rsrc_range_diff("1-5,7-10", b, &owned, -1, N), KEL_E_INVALID_RANGE);
		EXPECT_EQ(owned, nullptr);
	}
	// A result too long for a fixed buffer is refused, never written past it.
	char small[8];
	std::memset(small, '#', sizeof(small));
	EXPECT_EQ(kel_rsrc_range_diff("1-100", "50", small, 6, N), KEL_E_NOSPACE);
	EXPECT_EQ(small[6], '#');
}

TEST(Range, Containment)
{
	struct {
		const char *a, *b;
		int rc;
	} cases[] = {
	    {"1-10,20-30", "5,25-30", KEL_SUCCESS},
	    {"1-10", "11", KEL_E_RANGE_INUSE},
	    {"1-10", "0", KEL_E_RANGE_INUSE},
	    {"", "", KEL_SUCCESS},
	    {"1-5", "", KEL_SUCCESS},
	    {"", "3", KEL_E_RANGE_INUSE},
	    {"1-5,6-10", "4-7", KEL_E_RANGE_INUSE},  // a is not merged first
	    {"1-5,7-10", "6", KEL_E_RANGE_INUSE},
	    {"1-5,7-10", "1-5,7-10", KEL_SUCCESS},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.a) + " >= " + c.b);
		EXPECT_EQ(kel_rsrc_range_contains(c.a, c.b, N), c.rc);
	}
}

TEST(Range, ElementsSplitAndPrint)
{
	char element[] = "5-9";
	char *start = nullptr, *end = nullptr;
	kel_str2range(element, &start, &end, N);
	EXPECT_STREQ(start, "5");
	EXPECT_STREQ(end, "9");
	char single[] = "10.0.0.1";
	kel_str2range(single, &start, &end, V4);
	EXPECT_EQ(start, end);

	char buf[32];
	int len = 0;
	kel_print_range("1", "1", buf, sizeof(buf), &len, N);
	kel_print_range("3", "7", buf, sizeof(buf), &len, N);
	EXPECT_STREQ(buf, "1,3-7");
	EXPECT_EQ(len, 5);

	GTEST_FLAG_SET(death_test_style, "threadsafe");
	char backwards[] = "9-5";
	EXPECT_DEATH(kel_str2range(backwards, &start, &end, N), "file common/libkel_util");
	EXPECT_DEATH(kel_rsrc_cmp("1", "2", 3), "unknown range type");
}

}  // namespace
