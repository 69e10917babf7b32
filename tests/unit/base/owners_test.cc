#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <kel/libkel.h>
#include "owners.h"
#include "unique_fd.h"

namespace {

bool is_open(int fd)
{
	return fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueFd, MovesReleasesAndResets)
{
	int ends[2];
	ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
	kel::UniqueFd read_end(ends[0]), write_end(ends[1]);

	kel::UniqueFd moved(std::move(read_end));
	EXPECT_FALSE(read_end.valid());
	EXPECT_EQ(moved.get(), ends[0]);
	// Assigning over an owner closes what it held.
	moved = std::move(write_end);
	EXPECT_FALSE(is_open(ends[0]));
	EXPECT_EQ(moved.get(), ends[1]);

	const int kept = moved.release();
	EXPECT_FALSE(moved.valid());
	moved.reset();
	EXPECT_TRUE(is_open(kept));

	// The close keeps the errno of the call before it.
	moved.reset(kept);
	errno = ENOENT;
	moved.reset();
	EXPECT_EQ(errno, ENOENT);
	EXPECT_FALSE(is_open(kept));
}

TEST(RecordList, ABuiltListIsHandedOverWholeAndInOrder)
{
	for (int count : {0, 3}) {
		kel::RecordList<kel_drift_t> built;
		for (int i = 0; i < count; i++) {
			kel_drift_t *d = built.append();
			ASSERT_NE(d, nullptr);
			std::snprintf(d->edr_object, sizeof(d->edr_object), "%d", i);
		}
		list_t out;
		built.release(&out);
		EXPECT_TRUE(built.empty());
		EXPECT_EQ(kel_list_count(&out), count);
		int i = 0;
		for (kel_drift_t *d : kel::each<kel_drift_t>(&out))
			EXPECT_EQ(d->edr_object, std::to_string(i++));
		EXPECT_EQ(i, count);
		kel_free_driftlist(&out);
	}
}

}  // namespace
