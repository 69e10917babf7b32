#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include <kel/libkel.h>

namespace {

struct SetDeleter {
	void operator()(attrset_t *s) const { attrset_free(s); }
};
using Set = std::unique_ptr<attrset_t, SetDeleter>;

Set make(int flags)
{
	attrset_t *s = nullptr;
	EXPECT_EQ(attrset_create(&s, flags), 0);
	return Set(s);
}

// The entries as "name=value" in iteration order; int32 values in decimal.
std::vector<std::string> entries(attrset_t *set)
{
	std::vector<std::string> out;
	for (attrset_entry_t *e = attrset_next_entry(set, nullptr); e != nullptr; e = attrset_next_entry(set, e)) {
		char *text;
		int32_t n;
		std::string v;
		if (attrset_entry_type(e) == DATA_TYPE_STRING) {
			EXPECT_EQ(attrset_entry_value_string(e, &text), 0);
			EXPECT_EQ(attrset_entry_value_int32(e, &n), EINVAL);
			v = text;
		} else {
			EXPECT_EQ(attrset_entry_value_int32(e, &n), 0);
			EXPECT_EQ(attrset_entry_value_string(e, &text), EINVAL);
			v = std::to_string(n);
		}
		out.push_back(std::string(attrset_entry_name(e)) + "=" + v);
	}
	return out;
}

using V = std::vector<std::string>;

TEST(AttrSet, UniqueNamesReplaceAndMoveToTheEnd)
{
	Set s = make(ATTRSET_UNIQUE_NAME);
	ASSERT_EQ(attrset_add_string(s.get(), "cos", "1"), 0);
	ASSERT_EQ(attrset_add_int32(s.get(), "mtu", 1500), 0);
	ASSERT_EQ(attrset_add_string(s.get(), "maxbw", "10M"), 0);
	// Replacement drops the old entry whatever its type.
	ASSERT_EQ(attrset_add_string(s.get(), "mtu", "9000"), 0);
	EXPECT_EQ(entries(s.get()), (V{"cos=1", "maxbw=10M", "mtu=9000"}));

	char *value = nullptr;
	ASSERT_EQ(attrset_lookup_string(s.get(), "mtu", &value), 0);
	EXPECT_STREQ(value, "9000");
	EXPECT_EQ(attrset_lookup_string(s.get(), "vlanid", &value), ENOENT);
}

TEST(AttrSet, RepeatedNamesWithoutTheUniqueFlag)
{
	Set s = make(0);
	ASSERT_EQ(attrset_add_string(s.get(), "kel", "a"), 0);
	ASSERT_EQ(attrset_add_string(s.get(), "kel", "b"), 0);
	ASSERT_EQ(attrset_add_int32(s.get(), "kel", 3), 0);
	EXPECT_EQ(entries(s.get()), (V{"kel=a", "kel=b", "kel=3"}));

	// Removal takes every entry of the name and type, and only those.
	EXPECT_EQ(attrset_remove(s.get(), "kel", DATA_TYPE_STRING), 0);
	EXPECT_EQ(entries(s.get()), (V{"kel=3"}));
	EXPECT_EQ(attrset_remove(s.get(), "kel", DATA_TYPE_STRING), ENOENT);
	EXPECT_TRUE(attrset_exists(s.get(), "kel"));
	EXPECT_EQ(attrset_remove(s.get(), "kel", DATA_TYPE_INT32), 0);
	EXPECT_FALSE(attrset_exists(s.get(), "kel"));
	EXPECT_EQ(attrset_next_entry(s.get(), nullptr), nullptr);
}

// A set that has grown past a handful of entries finds names through an index of its
// own; it must answer exactly as a small one does.
TEST(AttrSet, BigSetsAnswerAsSmallOnes)
{
	for (int size : {3, 15, 16, 200}) {
		SCOPED_TRACE(size);
		Set u = make(ATTRSET_UNIQUE_NAME);
		V want;
		for (int i = 0; i < size; i++) {
			ASSERT_EQ(attrset_add_string(u.get(), ("n" + std::to_string(i)).c_str(), "v"), 0);
			want.push_back("n" + std::to_string(i) + "=v");
		}
		// Replacing moves the name to the end, whatever its type was.
		ASSERT_EQ(attrset_add_int32(u.get(), "n1", 7), 0);
		ASSERT_EQ(attrset_add_string(u.get(), "n1", "w"), 0);
		want.erase(want.begin() + 1);
		want.push_back("n1=w");
		EXPECT_EQ(entries(u.get()), want);
		char *value = nullptr;
		ASSERT_EQ(attrset_lookup_string(u.get(), "n1", &value), 0);
		EXPECT_STREQ(value, "w");
		EXPECT_EQ(attrset_remove(u.get(), "n0", DATA_TYPE_STRING), 0);
		EXPECT_FALSE(attrset_exists(u.get(), "n0"));
		EXPECT_EQ(attrset_lookup_string(u.get(), "n0", &value), ENOENT);
		EXPECT_EQ(kel_attrset_count(u.get()), size - 1);

		// Repeated names: the first in set order answers a lookup.
		Set r = make(0);
		ASSERT_EQ(attrset_add_string(r.get(), "kel", "a"), 0);
		for (int i = 0; i < size; i++)
			ASSERT_EQ(attrset_add_string(r.get(), "other", "x"), 0);
		ASSERT_EQ(attrset_add_int32(r.get(), "kel", 3), 0);
		ASSERT_EQ(attrset_add_string(r.get(), "kel", "b"), 0);
		ASSERT_EQ(attrset_lookup_string(r.get(), "kel", &value), 0);
		EXPECT_STREQ(value, "a");
		EXPECT_EQ(attrset_remove(r.get(), "kel", DATA_TYPE_STRING), 0);
		EXPECT_EQ(attrset_lookup_string(r.get(), "kel", &value), EINVAL);  // the integer is first now
		EXPECT_EQ(attrset_remove(r.get(), "other", DATA_TYPE_STRING), 0);
		EXPECT_EQ(entries(r.get()), (V{"kel=3"}));
	}
}

TEST(AttrSet, LookupOfAnIntegerEntryIsATypeError)
{
	Set s = make(ATTRSET_UNIQUE_NAME);
	ASSERT_EQ(attrset_add_int32(s.get(), "n", 7), 0);
	char *value = nullptr;
	EXPECT_EQ(attrset_lookup_string(s.get(), "n", &value), EINVAL);
}

TEST(AttrSet, BadArguments)
{
	attrset_t *s = reinterpret_cast<attrset_t *>(1);
	EXPECT_EQ(attrset_create(&s, 4), EINVAL);
	EXPECT_EQ(s, nullptr);
	attrset_free(nullptr);
	EXPECT_EQ(attrset_next_entry(nullptr, nullptr), nullptr);
	EXPECT_FALSE(attrset_exists(nullptr, "x"));
	Set set = make(0);
	EXPECT_EQ(attrset_add_string(set.get(), "x", nullptr), EINVAL);
	EXPECT_EQ(attrset_add_string(set.get(), nullptr, "x"), EINVAL);
	EXPECT_EQ(attrset_next_entry(set.get(), nullptr), nullptr);
}

}  // namespace
