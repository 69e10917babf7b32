// The control sockets that share a host's ssh connection live only where nobody but the
// caller can reach them; when there is no such place, calls simply do not share.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "ssh_share.h"
#include "test_support.h"

namespace {

class SshShare : public kel::test::ScratchRoot {
protected:
	std::string dir() { return path("run/kel/ssh-" + std::to_string(geteuid())); }
	void TearDown() override
	{
		unsetenv("KEL_SSH_PERSIST");
		ScratchRoot::TearDown();
	}
};

TEST_F(SshShare, OnlyAPrivateDirectoryHoldsTheSockets)
{
	const std::string d = path("d"), link = path("l"), file = path("f");
	struct {
		const char *what;
		mode_t mode;
		uid_t owner;
		bool ok;
	} cases[] = {
		{"mine, closed", 0700, geteuid(), true},
		{"group may enter", 0710, geteuid(), false},
		{"others may write", 0703, geteuid(), false},
		{"someone else's", 0700, 4242, false},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		std::filesystem::remove_all(d);
		ASSERT_EQ(mkdir(d.c_str(), 0700), 0);
		ASSERT_EQ(chmod(d.c_str(), c.mode), 0);
		ASSERT_EQ(chown(d.c_str(), c.owner, static_cast<gid_t>(-1)), 0);
		EXPECT_EQ(nuq::private_dir(d, geteuid()), c.ok);
	}
	ASSERT_EQ(chown(d.c_str(), geteuid(), static_cast<gid_t>(-1)), 0);
	ASSERT_EQ(chmod(d.c_str(), 0700), 0);
	ASSERT_EQ(symlink(d.c_str(), link.c_str()), 0);
	EXPECT_FALSE(nuq::private_dir(link, geteuid())) << "a link could be turned elsewhere";
	std::FILE *f = std::fopen(file.c_str(), "w");
	ASSERT_NE(f, nullptr);
	std::fclose(f);
	EXPECT_FALSE(nuq::private_dir(file, geteuid()));
	EXPECT_FALSE(nuq::private_dir(path("absent"), geteuid()));
}

TEST_F(SshShare, OptionsNameThePrivateDirectoryOrNothing)
{
	const std::vector<std::string> shared = nuq::ssh_share_options();
	EXPECT_EQ(shared, (std::vector<std::string>{"-o", "ControlMaster=auto", "-o",
	                      "ControlPath=" + dir() + "/%C", "-o", "ControlPersist=60"}));
	struct stat st;
	ASSERT_EQ(lstat(dir().c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 0777, 0700u);

	setenv("KEL_SSH_PERSIST", "5", 1);
	EXPECT_EQ(nuq::ssh_share_options().back(), "ControlPersist=5");
	setenv("KEL_SSH_PERSIST", "soon", 1);
	EXPECT_EQ(nuq::ssh_share_options().back(), "ControlPersist=60");
	setenv("KEL_SSH_PERSIST", "0", 1);
	EXPECT_TRUE(nuq::ssh_share_options().empty());
	unsetenv("KEL_SSH_PERSIST");

	// A directory that others may write is not used, nor trusted by being reset.
	ASSERT_EQ(chmod(dir().c_str(), 0777), 0);
	EXPECT_TRUE(nuq::ssh_share_options().empty());
	ASSERT_EQ(lstat(dir().c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 0777, 0777u);
}

}  // namespace
