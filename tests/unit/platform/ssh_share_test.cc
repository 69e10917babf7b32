// The control sockets that share a host's ssh connection live only where nobody but the
// caller can reach them; when there is no such place, calls simply do not share. Calls
// that find no master make one, one at a time.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
	const nuq::SshShare share("root@node1\n0\n");
	ASSERT_TRUE(share.enabled());
	const std::string socket = nuq::SshShare("root@node1\n0\n").options(false)[3].substr(strlen("ControlPath="));
	// One socket a destination, named alike by every caller, apart from any other's.
	EXPECT_EQ(socket.rfind(dir() + "/", 0), 0u) << socket;
	EXPECT_EQ(socket.size(), dir().size() + 1 + 32) << socket;
	for (const char *other : {"root@node2\n0\n", "node1\n0\n", "root@node1\n2222\n", "root@node1\n0\n/etc/kel/ssh"})
		EXPECT_NE(nuq::SshShare(other).options(false)[3], "ControlPath=" + socket) << other;
	EXPECT_EQ(share.options(false),
	    (std::vector<std::string>{"-o", "ControlMaster=auto", "-o", "ControlPath=" + socket, "-o",
	        "ControlPersist=60"}));
	// Through a standing master only: a refused session never logs in beside it.
	EXPECT_EQ(share.options(true),
	    (std::vector<std::string>{"-o", "ControlMaster=no", "-o", "ControlPath=" + socket, "-o",
	        "ProxyCommand=false"}));
	EXPECT_EQ(share.setup_file(), socket + ".setup");
	EXPECT_EQ(share.sessions_file(), socket + ".sessions");
	struct stat st;
	ASSERT_EQ(lstat(dir().c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 0777, 0700u);

	setenv("KEL_SSH_PERSIST", "5", 1);
	EXPECT_EQ(nuq::SshShare("h").options(false).back(), "ControlPersist=5");
	setenv("KEL_SSH_PERSIST", "soon", 1);
	EXPECT_EQ(nuq::SshShare("h").options(false).back(), "ControlPersist=60");
	setenv("KEL_SSH_PERSIST", "0", 1);
	EXPECT_FALSE(nuq::SshShare("h").enabled());
	EXPECT_TRUE(nuq::SshShare("h").options(false).empty());
	unsetenv("KEL_SSH_PERSIST");

	// A directory that others may write is not used, nor trusted by being reset.
	ASSERT_EQ(chmod(dir().c_str(), 0777), 0);
	EXPECT_FALSE(nuq::SshShare("h").enabled());
	EXPECT_TRUE(nuq::SshShare("h").options(true).empty());
	ASSERT_EQ(lstat(dir().c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 0777, 0777u);
}

// A master stands while something answers on its socket: not when there is no socket,
// nor when one is left by a master that died.
TEST_F(SshShare, AMasterStandsWhileItsSocketAnswers)
{
	const nuq::SshShare share("root@node1\n0\n");
	const std::string socket = share.options(false)[3].substr(strlen("ControlPath="));
	EXPECT_FALSE(share.master_up());
	const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	struct sockaddr_un addr {};
	addr.sun_family = AF_UNIX;
	std::strncpy(addr.sun_path, socket.c_str(), sizeof(addr.sun_path) - 1);
	ASSERT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)), 0);
	EXPECT_FALSE(share.master_up()) << "bound, not listening: a stale socket";
	ASSERT_EQ(listen(fd, 4), 0);
	EXPECT_TRUE(share.master_up());
	close(fd);
	EXPECT_FALSE(share.master_up());
}

// One caller at a time makes a destination's master, and at most kSessions hold
// sessions on it; a caller whose time is up stops waiting, and a file that cannot be had
// for other reasons stops no one.
TEST_F(SshShare, SlotsCountTheirHolders)
{
	const nuq::SshShare share("root@node1\n0\n");
	const auto now = std::chrono::steady_clock::now();
	nuq::FileSlot setup(share.setup_file(), 1, now);
	ASSERT_TRUE(setup.held());
	nuq::FileSlot second(share.setup_file(), 1, now);
	EXPECT_FALSE(second.held());
	EXPECT_TRUE(second.timed_out());
	// Another destination's is another lock.
	EXPECT_TRUE(nuq::FileSlot(nuq::SshShare("root@node2\n0\n").setup_file(), 1, now).held());
	nuq::FileSlot moved = std::move(setup);
	EXPECT_FALSE(nuq::FileSlot(share.setup_file(), 1, now).held());
	moved = nuq::FileSlot();
	EXPECT_TRUE(nuq::FileSlot(share.setup_file(), 1, now).held());

	// Holders in one process count apart, as threads of one keld do.
	std::vector<nuq::FileSlot> sessions;
	for (int i = 0; i < nuq::SshShare::kSessions; i++) {
		sessions.emplace_back(share.sessions_file(), nuq::SshShare::kSessions, now);
		ASSERT_TRUE(sessions.back().held()) << i;
	}
	EXPECT_TRUE(nuq::FileSlot(share.sessions_file(), nuq::SshShare::kSessions, now).timed_out());
	sessions.erase(sessions.begin() + 3);
	EXPECT_TRUE(nuq::FileSlot(share.sessions_file(), nuq::SshShare::kSessions, now).held());

	nuq::FileSlot nowhere(path("absent/x.setup"), 1, now);
	EXPECT_FALSE(nowhere.held());
	EXPECT_FALSE(nowhere.timed_out());
}

}  // namespace
