#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "names.h"

namespace {

const char *const kUuid = "6b8b4567-327b-23c6-643c-986966334873";

TEST(Names, ValidNames)
{
	const std::string n127(127, 'a'), n128(128, 'a');
	struct {
		std::string text;
		bool valid;
		bool uuid;
	} cases[] = {
	    {"web-1.a_b", true, false},
	    {"w", true, false},
	    {n127, true, false},
	    {n128, false, false},
	    {kUuid, true, true},
	    {"6b8b4567327b23c6643c986966334873", true, false},  // 32 digits: a plain name
	    {"6B8B4567-327B-23C6-643C-986966334873", true, true},
	    {std::string(kUuid) + "0", true, false},  // too long for a UUID: a plain name
	    {"web 1", false, false},
	    {"web,1", false, false},
	    {"web=1", false, false},
	    {"web/1", false, false},
	    // The first character is held to the same set as the rest.
	    {",web", false, false},
	    {" web", false, false},
	    {"_web", true, false},
	    {"", false, false},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE("'" + c.text + "'");
		EXPECT_EQ(kel_valid_name(c.text.c_str()), c.valid);
		EXPECT_EQ(kel_valid_uuidstr(c.text.c_str()), c.uuid);
		boolean_t is_uuid = B_TRUE;
		EXPECT_EQ(kel_parse_name(c.text.c_str(), &is_uuid), c.valid ? KEL_SUCCESS : KEL_E_INVALID_NAME);
		EXPECT_EQ(is_uuid, c.uuid);
	}
	boolean_t is_uuid = B_TRUE;
	EXPECT_EQ(kel_parse_name(nullptr, &is_uuid), KEL_E_INVALID_NAME);
	EXPECT_EQ(is_uuid, B_FALSE);
	EXPECT_FALSE(kel_valid_name(nullptr));
}

TEST(Names, CompoundNames)
{
	const std::string long_member = "k/" + std::string(253, 'a');  // 255 characters
	struct {
		std::string text;
		bool valid;
		const char *kel;
		const char *member;
	} cases[] = {
	    {"web/vp1", true, "web", "vp1"}, {"vp1", true, "", "vp1"}, {"web/", true, "web", ""}, {"", true, "", ""},
	    {"/vp1", false, "", ""}, {"web/a/b", false, "", ""}, {"web/a b", false, "", ""},
	    {std::string(kUuid) + "/vp1", true, kUuid, "vp1"},
	    {long_member, false, "", ""},                   // member longer than a name
	    {"k/" + std::string(254, 'a'), false, "", ""},  // 256 characters in all
	};
	for (const auto &c : cases) {
		SCOPED_TRACE("'" + c.text + "'");
		char kel[128] = "junk", member[128] = "junk";
		EXPECT_EQ(kel_parse_kelvportname(c.text.c_str(), kel, member), c.valid);
		if (c.valid) {
			EXPECT_STREQ(kel, c.kel);
			EXPECT_STREQ(member, c.member);
		}
		EXPECT_EQ(kel_parse_kelipnetname(c.text.c_str(), nullptr, nullptr), c.valid);
	}
}

TEST(Names, NameFromUuid)
{
	char buf[37];
	std::memset(buf, 'x', sizeof(buf));
	kel_uuidstr2name(kUuid, buf, sizeof(buf));
	EXPECT_STREQ(buf, "6b8b4567327b23c6643c986966334873");
	char exact[33];
	kel_uuidstr2name(kUuid, exact, sizeof(exact));
	EXPECT_STREQ(exact, "6b8b4567327b23c6643c986966334873");
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	char small[32];
	EXPECT_DEATH(kel_uuidstr2name(kUuid, small, sizeof(small)),
	    "size >= UUID_PRINTABLE_STRING_LENGTH - 4, file common/libkel_util");
}

TEST(Names, SystemVports)
{
	for (const char *name : {"sys-vport0", "sys-vport12", "sys-vportal"})
		EXPECT_TRUE(kel_is_system_vport(name)) << name;
	for (const char *name : {"vport0", "SYS-VPORT1", "sys-vpor", ""})
		EXPECT_FALSE(kel_is_system_vport(name)) << name;
}

TEST(Names, VnicNames)
{
	for (const char *name : {"vnic0", "ns1/vnic0", "a", "tenant-a.x/v_1", "123456789012345"})
		EXPECT_TRUE(kel_valid_zonevnicname(name)) << name;
	for (const char *name :
	    {"", "/vnic0", "ns/", "1234567890123456", "a/b/c", "vnic 0", "vnic,0", "..", "ns/.", "v:1"})
		EXPECT_FALSE(kel_valid_zonevnicname(name)) << name;
}

TEST(Names, Addresses)
{
	struct {
		const char *text;
		bool unspecified;
		bool valid;
	} cases[] = {
	    {"0.0.0.0", true, true},
	    {"::", true, true},
	    {"0.0.0.0/24", true, true},
	    {"::/0", true, true},
	    {"239.1.1.1", false, true},
	    {"10.1.2.3/24", false, true},
	    {"fe80::1", false, true},
	    {"::ffff:0.0.0.0", false, true},
	    // Not an address at all: neither unspecified nor valid.
	    {"no.such.host.invalid", false, false},
	    {"300.1.1.1", false, false},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		EXPECT_EQ(kel_address_unspecified(c.text), c.unspecified);
		EXPECT_EQ(kel_valid_address(c.text), c.valid);
	}
	EXPECT_FALSE(kel_address_unspecified(nullptr));
}

}  // namespace
