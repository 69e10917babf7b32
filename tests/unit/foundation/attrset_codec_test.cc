#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kel/libkel.h>

namespace {

using V = std::vector<std::string>;

// The entries of a set, in set order, as "name=value".
V entries(attrset_t *set)
{
	V out;
	for (attrset_entry_t *e = attrset_next_entry(set, nullptr); e != nullptr; e = attrset_next_entry(set, e)) {
		char *value = nullptr;
		EXPECT_EQ(attrset_entry_value_string(e, &value), 0);
		out.push_back(std::string(attrset_entry_name(e)) + "=" + value);
	}
	return out;
}

struct ReadCase {
	const char *text;
	boolean_t values;
	int flags;
	int rc;
	V want;  // set order
};

TEST(AttrsetCodec, ReadsFromTheRight)
{
	const int U = ATTRSET_UNIQUE_NAME;
	const ReadCase cases[] = {
	    {"cos=3,maxbw=100M", B_TRUE, U, KEL_SUCCESS, {"maxbw=100M", "cos=3"}},
	    {"protection=mac-nospoof,ip-nospoof", B_TRUE, U, KEL_SUCCESS, {"protection=mac-nospoof,ip-nospoof"}},
	    {"protection=mac-nospoof,ip-nospoof,cos=2", B_TRUE, U, KEL_SUCCESS,
	        {"cos=2", "protection=mac-nospoof,ip-nospoof"}},
	    {"a=1,x,b=2", B_TRUE, U, KEL_SUCCESS, {"b=2", "a=1,x"}},
	    {"cos=2,x", B_TRUE, U, KEL_SUCCESS, {"cos=2,x"}},
	    {"a=b=c", B_TRUE, U, KEL_SUCCESS, {"a=b=c"}},
	    {"vlanid=", B_TRUE, U, KEL_SUCCESS, {"vlanid="}},
	    {"=5", B_TRUE, U, KEL_SUCCESS, {"=5"}},
	    // Unique names: the leftmost occurrence is added last and wins.
	    {"cos=1,cos=2", B_TRUE, U, KEL_SUCCESS, {"cos=1"}},
	    {"cos=1,cos=2", B_TRUE, 0, KEL_SUCCESS, {"cos=2", "cos=1"}},
	    {"  \tcos=1", B_TRUE, U, KEL_SUCCESS, {"cos=1"}},
	    {"cos=1, maxbw=5", B_TRUE, U, KEL_SUCCESS, {" maxbw=5", "cos=1"}},
	    {"cos,maxbw", B_FALSE, U, KEL_SUCCESS, {"maxbw=", "cos="}},
	    {"a,,b", B_FALSE, 0, KEL_SUCCESS, {"b=", "=", "a="}},
	    {",a", B_FALSE, 0, KEL_SUCCESS, {"a=", "="}},
	    {"x,cos=2", B_TRUE, U, KEL_E_INVALID_ARGS, {}},
	    {"a=1,b=2,", B_TRUE, U, KEL_E_INVALID_ARGS, {}},
	    {"a,b,", B_FALSE, U, KEL_E_INVALID_ARGS, {}},
	    {"   ", B_TRUE, U, KEL_E_INVALID_ARGS, {}},
	    {"   ", B_FALSE, U, KEL_E_INVALID_ARGS, {}},
	    {"cos", B_TRUE, U, KEL_E_INVALID_ARGS, {}},
	};
	for (const ReadCase &c : cases) {
		SCOPED_TRACE(std::string("'") + c.text + "' values=" + std::to_string(c.values) +
		    " flags=" + std::to_string(c.flags));
		attrset_t *set = reinterpret_cast<attrset_t *>(1);
		EXPECT_EQ(kel_str2attrset(c.text, &set, c.values, c.flags), c.rc);
		if (c.rc != KEL_SUCCESS) {
			EXPECT_EQ(set, nullptr);
			continue;
		}
		EXPECT_EQ(entries(set), c.want);
		EXPECT_EQ(kel_attrset_count(set), static_cast<int>(c.want.size()));
		attrset_free(set);
	}
}

TEST(AttrsetCodec, EmptyTextGivesNoSet)
{
	for (boolean_t values : {B_TRUE, B_FALSE}) {
		attrset_t *set = reinterpret_cast<attrset_t *>(1);
		EXPECT_EQ(kel_str2attrset("", &set, values, ATTRSET_UNIQUE_NAME), KEL_SUCCESS);
		EXPECT_EQ(set, nullptr);
	}
	attrset_t *set;
	EXPECT_EQ(kel_str2attrset(nullptr, &set, B_TRUE, 0), KEL_E_INVALID_ARGS);
	EXPECT_EQ(kel_str2attrset("a=1", nullptr, B_TRUE, 0), KEL_E_INVALID_ARGS);
}

std::string write(attrset_t *set)
{
	char *text = nullptr;
	EXPECT_EQ(kel_attrset2str(set, &text), KEL_SUCCESS);
	std::string out = text ? text : "<null>";
	std::free(text);
	return out;
}

TEST(AttrsetCodec, WritingReversesAndDropsEmptyValues)
{
	struct {
		const char *text;
		boolean_t values;
		const char *written;
	} cases[] = {
	    {"cos=3,maxbw=100M", B_TRUE, "maxbw=100M,cos=3"},
	    {"protection=mac-nospoof,ip-nospoof,cos=2", B_TRUE, "cos=2,protection=mac-nospoof,ip-nospoof"},
	    {"cos=3,vlanid=", B_TRUE, "cos=3"},
	    {"vlanid=,cos=3", B_TRUE, "cos=3"},
	    {"cos,maxbw", B_FALSE, ""},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		attrset_t *set = nullptr;
		ASSERT_EQ(kel_str2attrset(c.text, &set, c.values, ATTRSET_UNIQUE_NAME), KEL_SUCCESS);
		EXPECT_EQ(write(set), c.written);
		attrset_free(set);
	}
	EXPECT_EQ(write(nullptr), "");
	// A round trip through text twice gives back the original order.
	attrset_t *once = nullptr, *twice = nullptr;
	ASSERT_EQ(kel_str2attrset("a=1,b=x,y,c=3", &once, B_TRUE, ATTRSET_UNIQUE_NAME), 0);
	ASSERT_EQ(kel_str2attrset(write(once).c_str(), &twice, B_TRUE, ATTRSET_UNIQUE_NAME), 0);
	EXPECT_EQ(write(twice), "a=1,b=x,y,c=3");
	attrset_free(once);
	attrset_free(twice);
}

TEST(AttrsetCodec, WritingAnIntegerEntryIsRefused)
{
	attrset_t *set = nullptr;
	ASSERT_EQ(attrset_create(&set, ATTRSET_UNIQUE_NAME), 0);
	ASSERT_EQ(attrset_add_int32(set, "n", 1), 0);
	char *text = reinterpret_cast<char *>(1);
	EXPECT_EQ(kel_attrset2str(set, &text), KEL_E_INVALID_ARGS);
	EXPECT_EQ(text, nullptr);
	attrset_free(set);
}

TEST(AttrsetCodec, ComposingPairs)
{
	char buf[1024];
	EXPECT_EQ(kel_create_attrstr(buf, sizeof(buf), nullptr, 3, "tenant", "t1", "kel", nullptr, "vport", ""),
	    KEL_SUCCESS);
	EXPECT_STREQ(buf, "tenant=t1");
	EXPECT_EQ(kel_create_attrstr(buf, sizeof(buf), "host=h", 3, "tenant", "t1", "kel", nullptr, "vport", ""),
	    KEL_SUCCESS);
	EXPECT_STREQ(buf, "tenant=t1,host=h");
	EXPECT_EQ(kel_create_attrstr(buf, sizeof(buf), "host=h", 1, "kel", ""), KEL_SUCCESS);
	EXPECT_STREQ(buf, "host=h");
	EXPECT_EQ(kel_create_attrstr(buf, sizeof(buf), "", 2, nullptr, "x", "a", "1"), KEL_SUCCESS);
	EXPECT_STREQ(buf, "a=1");
}

TEST(AttrsetCodec, ComposingNeedsRoomForTheTerminator)
{
	// "kel=web,vport=v1" is 16 characters.
	for (size_t size : {16u, 17u}) {
		SCOPED_TRACE(size);
		std::vector<char> buf(size, 'x');
		const int rc = kel_create_attrstr(buf.data(), size, nullptr, 2, "kel", "web", "vport", "v1");
		EXPECT_EQ(rc, size == 17 ? KEL_SUCCESS : KEL_E_NOSPACE);
		EXPECT_EQ(std::memchr(buf.data(), '\0', size) != nullptr, true);
	}
	// The tail counts as well: "kel=web" and ",host=h" need 15 bytes.
	for (size_t size : {14u, 15u}) {
		std::vector<char> buf(size);
		EXPECT_EQ(kel_create_attrstr(buf.data(), size, "host=h", 1, "kel", "web"),
		    size == 15 ? KEL_SUCCESS : KEL_E_NOSPACE);
	}
}

TEST(AttrsetCodec, BuildingFromTriples)
{
	attrset_t *set = kel_create_attrset(3, "vmid", DATA_TYPE_STRING, "vm1", "ipaddr", DATA_TYPE_STRING, nullptr,
	    "macaddr", DATA_TYPE_STRING, "2:8:20:1:2:3");
	ASSERT_NE(set, nullptr);
	EXPECT_EQ(entries(set), (V{"vmid=vm1", "macaddr=2:8:20:1:2:3"}));
	attrset_free(set);
	set = kel_create_attrset(0);
	ASSERT_NE(set, nullptr);
	EXPECT_EQ(kel_attrset_count(set), 0);
	attrset_free(set);
}

TEST(AttrsetCodec, Integers)
{
	struct {
		const char *text;
		int rc;
		int value;
	} cases[] = {
	    {"42", KEL_SUCCESS, 42},
	    {"-7", KEL_SUCCESS, -7},
	    {" 5", KEL_SUCCESS, 5},
	    {"", KEL_SUCCESS, 0},
	    {"12a", KEL_E_INVALID_ARGS, 0},
	    {"5 ", KEL_E_INVALID_ARGS, 0},
	    {"99999999999999999999", KEL_E_INVALID_ARGS, 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		int out = 12345;
		EXPECT_EQ(kel_str2int(c.text, &out), c.rc);
		EXPECT_EQ(out, c.rc == KEL_SUCCESS ? c.value : 12345);
	}
}

}  // namespace
