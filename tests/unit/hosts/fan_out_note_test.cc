// The note of which hosts answered the last call to many: read back as written, and a
// file that is not such a note read as none rather than half.
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "fan_out_note.h"
#include "paths.h"
#include "test_support.h"

namespace {

class FanOutNote : public kel::test::ScratchRoot {};

TEST_F(FanOutNote, ReadsBackAsWrittenOrNotAtAll)
{
	EXPECT_FALSE(kel::last_fan_out());
	kel::note_fan_out({"property", 1700000000, {{"kel-ha", true}, {"kel-hb", false}}});
	const auto note = kel::last_fan_out();
	ASSERT_TRUE(note);
	EXPECT_EQ(note->operation, "property");
	EXPECT_EQ(note->ended, 1700000000);
	EXPECT_EQ(note->hosts, (std::vector<std::pair<std::string, bool>>{{"kel-ha", true}, {"kel-hb", false}}));
	kel::note_fan_out({"verify", 1700000001, {}});
	EXPECT_TRUE(kel::last_fan_out()->hosts.empty());

	const std::string path = kel::paths::under_root(kel::paths::kFanOutFile);
	for (const char *text : {"operation verify\nended 1\nhost a\"b answered\n", "operation verify\nended x\n",
	         "operation verify\nended 1\nhost a perhaps\n", "ended 1\noperation verify\n",
	         "operation verify\nended 1\nhost a answered extra\n"}) {
		std::ofstream(path) << text;
		EXPECT_FALSE(kel::last_fan_out()) << text;
	}
}

}  // namespace
