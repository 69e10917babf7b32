#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <gtest/gtest.h>

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

}  // namespace
