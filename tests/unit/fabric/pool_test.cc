#include <gtest/gtest.h>

#include <string>

#include <kel/libkel.h>
#include "pool.h"
#include "range.h"

namespace {

using kel::pool::give;
using kel::pool::take;
using kel::pool::take_lowest;

constexpr int N = KEL_RANGE_NUMBER;

TEST(Pool, DrawsTheLowestValue)
{
	struct {
		const char *pool, *drawn, *rest;
	} cases[] = {
	    {"1-4094", "1", "2-4094"},
	    {"5", "5", ""},
	    {"5,7-9", "5", "7-9"},
	    {"5-6,9", "5", "6,9"},
	    {"5-7", "5", "6-7"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.pool);
		std::string drawn, rest;
		ASSERT_EQ(take_lowest(c.pool, N, &drawn, &rest), KEL_SUCCESS);
		EXPECT_EQ(drawn, c.drawn);
		EXPECT_EQ(rest, c.rest);
	}
	std::string drawn, rest;
	EXPECT_EQ(take_lowest("", N, &drawn, &rest), KEL_E_NORESOURCE);
	ASSERT_EQ(take_lowest("10.0.0.2-10.0.0.254", KEL_RANGE_IPV4, &drawn, &rest), KEL_SUCCESS);
	EXPECT_EQ(drawn + " " + rest, "10.0.0.2 10.0.0.3-10.0.0.254");
}

TEST(Pool, DrawsAGivenValue)
{
	struct {
		const char *pool, *value, *rest;  // rest nullptr: not free
	} cases[] = {
	    {"1-10", "7", "1-6,8-10"},
	    {"6-10", "7", "6,8-10"},
	    {"6-10", "6", "7-10"},
	    {"6-10", "10", "6-9"},
	    {"6-10", "9", "6-8,10"},
	    {"5", "5", ""},
	    {"1-3,5,7-9", "5", "1-3,7-9"},
	    {"1-10,20-30", "11", nullptr},
	    {"1-10,20-30", "40", nullptr},
	    {"", "1", nullptr},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.pool) + " take " + c.value);
		std::string rest = "unchanged";
		EXPECT_EQ(take(c.pool, c.value, N, &rest), c.rest ? KEL_SUCCESS : KEL_E_NORESOURCE);
		EXPECT_EQ(rest, c.rest ? c.rest : "unchanged");
	}
}

TEST(Pool, GivesBackInOrderAndMerges)
{
	struct {
		const char *pool, *value, *want;
	} cases[] = {
	    {"", "5", "5"},
	    {"5-9", "4", "4-9"},
	    {"5-9", "2", "2,5-9"},
	    {"5-9", "10", "5-10"},
	    {"5-9", "12", "5-9,12"},
	    {"1-6,8-9", "7", "1-9"},
	    {"1-6,9", "7", "1-7,9"},
	    {"1-5,8", "7", "1-5,7-8"},
	    {"1-5,9", "7", "1-5,7,9"},
	    {"1,3", "2", "1-3"},
	    // Giving back a value that is already free leaves the pool as it was.
	    {"1-10", "5", "1-10"},
	    {"1-3,7", "7", "1-3,7"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.pool) + " give " + c.value);
		EXPECT_EQ(give(c.pool, c.value, N), c.want);
	}
	EXPECT_EQ(give("10.0.0.1-10.0.0.9,10.0.0.11", "10.0.0.10", KEL_RANGE_IPV4), "10.0.0.1-10.0.0.11");
}

TEST(Pool, EveryDrawGivenBackRestoresThePool)
{
	// Draw every value of a fragmented pool in a scattered order, then give them back
	// in another: the pool must come back exactly.
	const std::string start = "1-20,30,40-45";
	std::string pool = start;
	const char *order[] = {"7", "1", "20", "30", "42", "45", "40", "13", "2"};
	for (const char *v : order) {
		std::string rest;
		ASSERT_EQ(take(pool, v, N, &rest), KEL_SUCCESS) << v;
		pool = rest;
	}
	EXPECT_EQ(pool, "3-6,8-12,14-19,41,43-44");
	for (const char *v : {"42", "2", "30", "1", "45", "13", "40", "20", "7"})
		pool = give(pool, v, N);
	EXPECT_EQ(pool, start);
}

}  // namespace
