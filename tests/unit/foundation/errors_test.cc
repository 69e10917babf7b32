#include <sqlite3.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "error_code.h"

namespace {

std::string message(int code)
{
	char buf[1024];
	return kel_errmsg(code, buf, sizeof(buf));
}

TEST(ErrorMessages, PlainReasons)
{
	struct Case {
		int code;
		const char *text;
	} cases[] = {
	    {KEL_SUCCESS, "kel operation succeeded"},
	    {KEL_E_CONTINUE, "continue with operation"},
	    {KEL_E_NOSPACE, "insufficient buffer space"},
	    {KEL_E_RANGE_EXCLUSIVE, "range includes exlusive resource"},
	    {KEL_E_VXLANADDR_ATTRS,
	        "vxlan-range is the only attribute allowed to be specified for vxlan-addr property"},
	    // The status of a reason without a facility is ignored.
	    {7 * 256 + KEL_E_NOMEM, "insufficient memory"},
	    // Reasons past the table, whatever the upper bits hold.
	    {82, "Unknown KEL error"},
	    {255, "Unknown KEL error"},
	    {3 * 256 + 200, "Unknown KEL error"},
	    {-1, "Unknown KEL error"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.code);
		EXPECT_EQ(message(c.code), c.text);
	}
}

TEST(ErrorMessages, FacilityReasonsCarryTheFacilityText)
{
	EXPECT_EQ(message(SQLITE_BUSY * 256 + KEL_E_SQL),
	    std::string("error while handling SQL: ") + sqlite3_errstr(SQLITE_BUSY));
	EXPECT_EQ(message(ENOENT * 256 + KEL_E_SYSTEM), std::string("system error: ") + std::strerror(ENOENT));
	// Each platform library names its own errors.
	EXPECT_EQ(message(1003 * 256 + KEL_E_VUR), "error while handling VUR: entity not found");
	EXPECT_EQ(message(1027 * 256 + KEL_E_NUQ), "error while handling NUQ: remote call timed out");
	EXPECT_EQ(message(3 * 256 + KEL_E_WEXO), "error while handling libwexo: datalink not found");
	// An unknown L2 type is the datalink layer's "not supported", 1061 in all.
	EXPECT_EQ(message(1061), "error while handling libwexo: datalink operation not supported");
	EXPECT_EQ(message(25 * 256 + KEL_E_WEXO), "error while handling libwexo: datalink is in use by other links");
	EXPECT_EQ(message(105 * 256 + KEL_E_WEXO),
	    "error while handling libwexo: VXLAN interface is not an IP interface");
	EXPECT_EQ(message(4 * 256 + KEL_E_FENU), "error while handling libfenu: invalid address or interface");
	// A negative status survives the arithmetic shift (and is no datalink status).
	EXPECT_EQ(message(-3 * 256 + KEL_E_WEXO), "error while handling libwexo: unknown datalink error");
}

TEST(ErrorMessages, CodeLayout)
{
	const int code = kel::sql_error(SQLITE_CONSTRAINT);
	EXPECT_EQ(code, SQLITE_CONSTRAINT * 256 + 64);
	EXPECT_EQ(KEL_ERR_REASON(code), KEL_E_SQL);
	EXPECT_EQ(KEL_ERR_STATUS(code), SQLITE_CONSTRAINT);
	EXPECT_EQ(KEL_ERR_REASON(-1), 255);
	EXPECT_EQ(KEL_ERR_STATUS(kel::compose_error(-2, KEL_E_VUR)), -2);
	EXPECT_EQ(KEL_ERR_REASON(kel::compose_error(-2, KEL_E_VUR)), KEL_E_VUR);
}

TEST(ErrorMessages, ShortBuffersCutAndTerminate)
{
	char buf[5];
	std::memset(buf, 'x', sizeof(buf));
	EXPECT_STREQ(kel_errmsg(KEL_SUCCESS, buf, 5), "kel ");
	char one[1] = {'x'};
	EXPECT_STREQ(kel_errmsg(KEL_E_FAILED, one, 1), "");
	EXPECT_STREQ(kel_errmsg(KEL_E_FAILED, one, 0), "");
}

TEST(ErrorMessages, EveryReasonHasItsOwnMessage)
{
	for (int i = 0; i < KEL_NUM_REASONS; i++) {
		ASSERT_NE(kel_errlist[i], nullptr) << i;
		EXPECT_GT(std::strlen(kel_errlist[i]), 0u) << i;
		for (int j = 0; j < i; j++)
			EXPECT_STRNE(kel_errlist[i], kel_errlist[j]) << i << " repeats " << j;
	}
	EXPECT_STREQ(kel_errlist[KEL_E_INVALID_URI_TEMPLATE],
	    "invalid host URI template specified (should be of the form unix://[username@] or "
	    "ssh://[username@])");
}

}  // namespace
