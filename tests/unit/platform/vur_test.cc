#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "instance_file.h"
#include "service_config.h"
#include "test_support.h"
#include "vur.h"

namespace {

using Repository = kel::test::ScratchRoot;

constexpr const char *kInst = "svc:/network/kel:default";

std::string file_text(const std::string &path)
{
	std::ifstream in(path);
	std::stringstream s;
	s << in.rdbuf();
	return s.str();
}

std::string get(const char *pname, vur_type_t type = VUR_TYPE_ASTRING)
{
	char buf[256];
	const int rc = kel_tog_get_one_value(kInst, "config", pname, type, buf, sizeof(buf));
	return rc == KEL_SUCCESS ? std::string(buf) : "error " + std::to_string(rc);
}

int set(const char *pname, const char *value, vur_type_t type = VUR_TYPE_ASTRING)
{
	return kel_tog_set_one_value(kInst, "config", pname, type, const_cast<char *>(value));
}

TEST_F(Repository, InstanceNamesBecomeFiles)
{
	EXPECT_EQ(vur::instance_path("svc:/network/kel:default"), path("etc/kel/svc/network/kel/default.conf"));
	for (const char *bad : {"svc:/network/kel", "network/kel:default", "svc:/:default",
	         "svc:/network/kel:", "svc:/../etc:passwd", "svc:/network/kel:a/b"})
		EXPECT_EQ(vur::instance_path(bad), "") << bad;
	kel_vur_state_t st;
	EXPECT_EQ(kel_vur_open("svc:/network/kel", &st), VUR_ERROR_CONSTRAINT_VIOLATED * 256 + KEL_E_VUR);
}

TEST_F(Repository, ValuesPersistReadablyAndTyped)
{
	EXPECT_EQ(get("controller"), "error " + std::to_string(KEL_E_NOTFOUND));
	ASSERT_EQ(set("controller", "ssh://admin@ctl"), KEL_SUCCESS);
	ASSERT_EQ(set("endpoint", "192.168.10.5/24", VUR_TYPE_NET_ADDR), KEL_SUCCESS);
	ASSERT_EQ(set("note", "two\nlines \\ and = signs"), KEL_SUCCESS);
	EXPECT_EQ(get("controller"), "ssh://admin@ctl");
	EXPECT_EQ(get("endpoint", VUR_TYPE_NET_ADDR), "192.168.10.5/24");
	EXPECT_EQ(get("note"), "two\nlines \\ and = signs");
	// Reading a value as the wrong type is refused.
	EXPECT_EQ(get("endpoint"), "error " + std::to_string(VUR_ERROR_TYPE_MISMATCH * 256 + KEL_E_VUR));
	// Overwriting changes the value in place.
	ASSERT_EQ(set("controller", "unix://"), KEL_SUCCESS);
	EXPECT_EQ(get("controller"), "unix://");

	const std::string text = file_text(path("etc/kel/svc/network/kel/default.conf"));
	EXPECT_NE(text.find("[config]\ntype = application\n"), std::string::npos) << text;
	EXPECT_NE(text.find("controller astring = unix://\n"), std::string::npos) << text;
	EXPECT_NE(text.find("endpoint net_address = 192.168.10.5/24\n"), std::string::npos) << text;
}

// The settings are for every user to read, and for root alone to write, whatever umask
// the writer had.
TEST_F(Repository, ModesDoNotDependOnTheUmask)
{
	namespace fs = std::filesystem;
	for (const mode_t mask : {mode_t{077}, mode_t{0}}) {
		SCOPED_TRACE(mask);
		fs::remove_all(path("etc/kel/svc"));
		const mode_t old = umask(mask);
		const int rc = set("controller", "unix://");
		umask(old);
		ASSERT_EQ(rc, KEL_SUCCESS);
		for (const char *dir : {"etc/kel/svc", "etc/kel/svc/network", "etc/kel/svc/network/kel"})
			EXPECT_EQ(fs::status(path(dir)).permissions(), static_cast<fs::perms>(0755)) << dir;
		EXPECT_EQ(fs::status(path("etc/kel/svc/network/kel/default.conf")).permissions(),
		    static_cast<fs::perms>(0644));
	}
}

TEST_F(Repository, DeletingProperties)
{
	// Nothing to delete is no failure, with or without the group.
	EXPECT_EQ(set("controller", nullptr), KEL_SUCCESS);
	ASSERT_EQ(set("a", "1"), KEL_SUCCESS);
	EXPECT_EQ(set("b", nullptr), KEL_SUCCESS);
	EXPECT_EQ(set("a", nullptr), KEL_SUCCESS);
	EXPECT_EQ(get("a"), "error " + std::to_string(KEL_E_NOTFOUND));
}

TEST_F(Repository, AFailedFirstWriteLeavesNoGroup)
{
	EXPECT_EQ(
	    kel_tog_set_one_value(kInst, "fresh", "addr", VUR_TYPE_NET_ADDR, const_cast<char *>("not an address")),
	    VUR_ERROR_INVALID_ARGUMENT * 256 + KEL_E_VUR);
	vur::InstanceFile file;
	ASSERT_EQ(vur::load(vur::instance_path(kInst), &file), VUR_ERROR_NONE);
	EXPECT_EQ(file.find("fresh"), nullptr);
	// A failed write into a group that was there keeps the group.
	ASSERT_EQ(set("a", "1"), KEL_SUCCESS);
	EXPECT_NE(set("b", "x/y", VUR_TYPE_NET_ADDR), KEL_SUCCESS);
	EXPECT_EQ(get("a"), "1");
}

TEST_F(Repository, ACommitAfterAnotherWriterAnswersRetry)
{
	ASSERT_EQ(set("a", "1"), KEL_SUCCESS);
	vur_handle_t *h = vur_handle_create(1);
	ASSERT_EQ(vur_handle_bind(h), 0);
	vur_instance_t *inst = vur_instance_create(h);
	ASSERT_EQ(vur_handle_decode_fmri(h, kInst, nullptr, nullptr, inst, nullptr, nullptr, 0), 0);
	vur_propertygroup_t *pg = vur_pg_create(h);
	ASSERT_EQ(vur_instance_get_pg(inst, "config", pg), 0);
	vur_transaction_t *tx = vur_transaction_create(h);
	vur_transaction_entry_t *entry = vur_entry_create(h);
	vur_value_t *val = vur_value_create(h);
	ASSERT_EQ(vur_value_set_astring(val, "mine"), 0);
	ASSERT_EQ(vur_transaction_start(tx, pg), 0);
	EXPECT_EQ(vur_transaction_property_new(tx, entry, "a", VUR_TYPE_ASTRING), -1);
	EXPECT_EQ(vur_error(), VUR_ERROR_EXISTS);
	ASSERT_EQ(vur_transaction_property_change(tx, entry, "a", VUR_TYPE_ASTRING), 0);
	ASSERT_EQ(vur_entry_add_value(entry, val), 0);

	ASSERT_EQ(set("b", "theirs"), KEL_SUCCESS);  // another writer, meanwhile
	EXPECT_EQ(vur_transaction_commit(tx), 0);
	EXPECT_EQ(get("a"), "1");

	vur_transaction_reset(tx);
	ASSERT_EQ(vur_pg_update(pg), 0);
	ASSERT_EQ(vur_transaction_start(tx, pg), 0);
	ASSERT_EQ(vur_transaction_property_change(tx, entry, "a", VUR_TYPE_ASTRING), 0);
	ASSERT_EQ(vur_entry_add_value(entry, val), 0);
	EXPECT_EQ(vur_transaction_commit(tx), 1);
	EXPECT_EQ(get("a"), "mine");
	EXPECT_EQ(get("b"), "theirs");

	vur_value_destroy(val);
	vur_entry_destroy(entry);
	vur_transaction_destroy(tx);
	vur_pg_destroy(pg);
	vur_instance_destroy(inst);
	vur_handle_unbind(h);
	vur_handle_destroy(h);
}

TEST_F(Repository, TwoProcessesWritingOneGroupLoseNothing)
{
	constexpr int kWrites = 40;
	pid_t pids[2];
	for (int w = 0; w < 2; w++)
		if ((pids[w] = fork()) == 0) {
			for (int i = 0; i < kWrites; i++) {
				const std::string name = "w" + std::to_string(w) + "_" + std::to_string(i);
				if (set(name.c_str(), "v") != KEL_SUCCESS)
					_exit(1);
			}
			_exit(0);
		}
	for (pid_t pid : pids)
		EXPECT_EQ(kel::test::wait_exit(pid), 0);
	vur::InstanceFile file;
	ASSERT_EQ(vur::load(vur::instance_path(kInst), &file), VUR_ERROR_NONE);
	ASSERT_NE(file.find("config"), nullptr);
	EXPECT_EQ(file.find("config")->props.size(), 2u * kWrites);
}

TEST_F(Repository, AnUnreadableFileIsABackendError)
{
	std::filesystem::create_directories(path("etc/kel/svc/network/kel"));
	std::ofstream(path("etc/kel/svc/network/kel/default.conf")) << "[config\nnonsense\n";
	EXPECT_EQ(get("controller"), "error " + std::to_string(VUR_ERROR_BACKEND_ACCESS * 256 + KEL_E_VUR));
	EXPECT_EQ(set("controller", "unix://"), VUR_ERROR_BACKEND_ACCESS * 256 + KEL_E_VUR);
}

std::atomic<int> hangups{0};

TEST_F(Repository, RefreshSignalsOnlyARunningDaemon)
{
	// No pid file, and a pid file naming a process that is not keld: nothing to do.
	EXPECT_EQ(tog_refresh_instance(kInst), 0);
	std::filesystem::create_directories(path("run/kel"));
	std::ofstream(path("run/kel/keld.pid")) << getpid() << "\n";
	EXPECT_EQ(tog_refresh_instance(kInst), 0);

	// A process called keld gets SIGHUP.
	int ready[2];
	ASSERT_EQ(pipe(ready), 0);
	const pid_t daemon = fork();
	if (daemon == 0) {
		prctl(PR_SET_NAME, "keld");
		signal(SIGHUP, [](int) { _exit(42); });
		char c = 'r';
		(void)write(ready[1], &c, 1);
		for (;;)
			pause();
	}
	char c;
	ASSERT_EQ(read(ready[0], &c, 1), 1);
	std::ofstream(path("run/kel/keld.pid")) << daemon << "\n";
	EXPECT_EQ(tog_refresh_instance(kInst), 0);
	EXPECT_EQ(kel::test::wait_exit(daemon), 42);
	close(ready[0]);
	close(ready[1]);
}

}  // namespace
