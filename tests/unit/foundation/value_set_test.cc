// Set algebra over range-set strings without expanding them: the edges of each type,
// unsorted and overlapping input, and sets too large to count one by one.
#include <string>

#include "range.h"
#include "test_support.h"
#include "value_set.h"

namespace {

using kel::ValueSet;

ValueSet set(const char *text, int type = KEL_RANGE_NUMBER)
{
	ValueSet s(type);
	EXPECT_TRUE(ValueSet::parse(text, type, &s)) << text;
	return s;
}

TEST(ValueSet, NormalisesAndComputes)
{
	struct {
		const char *a, *b;
		int type;
		const char *unite, *minus, *intersect;
	} cases[] = {
	    {"5-9,1-3", "3-6", KEL_RANGE_NUMBER, "1-9", "1-2,7-9", "3,5-6"},
	    {"0,1,2,4", "", KEL_RANGE_NUMBER, "0-2,4", "0-2,4", ""},
	    {"0-16777215", "1-16777214", KEL_RANGE_NUMBER, "0-16777215", "0,16777215", "1-16777214"},
	    {"10.0.0.255-10.0.1.1", "10.0.1.0", KEL_RANGE_IPV4, "10.0.0.255-10.0.1.1", "10.0.0.255,10.0.1.1",
	        "10.0.1.0"},
	    {"0.0.0.0-255.255.255.255", "0.0.0.0,255.255.255.255", KEL_RANGE_IPV4, "0.0.0.0-255.255.255.255",
	        "0.0.0.1-255.255.255.254", "0.0.0.0,255.255.255.255"},
	    {"fd00::ffff-fd00::1:1", "fd00::1:0", KEL_RANGE_IPV6, "fd00::ffff-fd00::1:1", "fd00::ffff,fd00::1:1",
	        "fd00::1:0"},
	    {"::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::1", KEL_RANGE_IPV6,
	        "::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::,::2-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::1"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.a) + " and " + c.b);
		const ValueSet a = set(c.a, c.type), b = set(c.b, c.type);
		EXPECT_EQ(a.unite(b).text(), c.unite);
		EXPECT_EQ(a.minus(b).text(), c.minus);
		EXPECT_EQ(a.intersect(b).text(), c.intersect);
		EXPECT_TRUE(a.unite(b).contains(a));
		EXPECT_EQ(a.minus(b).intersect(b).text(), "");
	}
}

TEST(ValueSet, CountsWithoutExpanding)
{
	EXPECT_EQ(set("1-3,10").count(), 4u);
	EXPECT_EQ(set("10.0.0.0-10.255.255.255", KEL_RANGE_IPV4).count(), 16777216u);
	EXPECT_EQ(set("fd00::-fd00::ffff:ffff:ffff:ffff", KEL_RANGE_IPV6).count(), static_cast<kel::Value>(1) << 64);
	// The whole IPv6 space has one value more than the type holds: it saturates.
	EXPECT_EQ(set("::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", KEL_RANGE_IPV6).count(), ~kel::Value{0});
	EXPECT_TRUE(set("").empty());
	EXPECT_TRUE(set("3-7").has(7));
	EXPECT_FALSE(set("3-7").has(8));
}

TEST(ValueSet, RefusesWhatDoesNotParse)
{
	ValueSet s(KEL_RANGE_NUMBER);
	for (const char *bad : {"x", "5-3", "1-", "-1", "1.5", "99999999999999999999999"})
		EXPECT_FALSE(ValueSet::parse(bad, KEL_RANGE_NUMBER, &s)) << bad;
	EXPECT_FALSE(ValueSet::parse("10.0.0.256", KEL_RANGE_IPV4, &s));
	EXPECT_FALSE(ValueSet::parse("fd00::1", KEL_RANGE_IPV4, &s));
}

}  // namespace
