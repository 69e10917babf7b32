// A crash at any instant leaves the store as it was before an operation or as it is
// after it: never a value drawn and lost, never one free and held at once. Each writer
// runs in a child that dies before its Nth statement, for every N until the writer
// completes; then writers in several processes are killed at random instants. After
// every crash the store passes every check of kel_db_check_store.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "fault.h"
#include "store_fixture.h"

namespace {

constexpr int kDied = 86;  // the status of a child that died at its statement

class CrashSafety : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		// What a crash leaves in a database is the server's to keep whole; the failover
		// scenario kills processes on one. Here: the file, its journal and their copies.
		StoreFixture::SetUp();
		KEL_FILE_STORE_ONLY();
		set_ctrl("vlan-range", "100-199");
		set_ctrl("vlan-range-avail", "100-199");
		set_ctrl("vxlan-range", "5000-5099");
		set_ctrl("vxlan-range-avail", "5000-5099");
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "uplink-port=net0", nullptr), KEL_SUCCESS);
		make_kel("web", "l2-type=vlan", "subnet=10.0.0.0/24,pool=10.0.0.10-10.0.0.99");
		make_kel("six", "l2-type=vxlan", "subnet=fd00::/120,pool=fd00::10-fd00::90");
		make_kel("old", "l2-type=vlan", "subnet=10.1.0.0/24");
		for (const char *p : {"p1", "p2"})
			ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "web", p, nullptr, nullptr, 0), KEL_SUCCESS);
		ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "old", "q", nullptr, nullptr, 0), KEL_SUCCESS);
		char sys[KEL_NAME_LEN];
		ASSERT_EQ(kel_db_add_system_vport(h_, "sys-global", "web", sys), KEL_SUCCESS);
		kel_t *bound = nullptr;
		ASSERT_EQ(kel_db_assign_vport(h_, "sys-global", "web", nullptr, "vn1", "node1", nullptr, &bound),
		    KEL_SUCCESS);
		kel_free_kel(bound);
		ASSERT_EQ(kel_db_assign_vport(h_, "sys-global", "web", "p2", "vn5", "node1", nullptr, &bound),
		    KEL_SUCCESS);
		kel_free_kel(bound);
		kel_t *bare = nullptr;
		ASSERT_EQ(kel_db_create_kel(h_, nullptr, "bare", "l2-type=flat", 0, &bare), KEL_SUCCESS);
		kel_free_kel(bare);
	}

	void make_kel(const char *name, const char *props, const char *net)
	{
		kel_t *k = nullptr;
		ASSERT_EQ(kel_db_create_kel(h_, nullptr, name, props, 0, &k), KEL_SUCCESS);
		kel_free_kel(k);
		kel_ipnet_t *ip = nullptr;
		// Network names are the tenant's: one per switch.
		const std::string netname = std::string(name) + "-net";
		ASSERT_EQ(kel_db_add_ipnet(h_, "sys-global", name, netname.c_str(), net, &ip, KEL_NAME_DASH_OK),
		    KEL_SUCCESS);
		kel_free_ipnet(ip);
	}

	// A copy of the store's file, for restore_store to put back: a child then works on
	// the store SetUp made, and the next child starts from it again.
	void save_store()
	{
		const std::string db = db_path();
		ASSERT_EQ(system(("cp -p " + db + " " + db + ".orig").c_str()), 0);
	}
	void restore_store()
	{
		const std::string db = db_path();
		kel_db_close(h_);
		ASSERT_EQ(system(("mv " + db + ".orig " + db + " && rm -f " + db + "-journal").c_str()), 0);
		ASSERT_EQ(kel_db_open(&h_, KEL_DB_READWRITE), KEL_SUCCESS);
	}

	// What kel_db_check_store finds, one line per problem ("" for none).
	std::string problems()
	{
		list_t list;
		const int rc = kel_db_check_store(h_, 0, &list);
		if (rc != KEL_SUCCESS)
			return "check failed: " + std::to_string(rc);
		std::string out;
		for (auto *p = static_cast<kel_store_problem_t *>(list_head(&list)); p != nullptr;
		     p = static_cast<kel_store_problem_t *>(list_next(&list, p)))
			out += std::string(p->esp_object) + ": " + p->esp_text + "\n";
		kel_free_problemlist(&list);
		return out;
	}
};

using Writer = std::function<int(kel_dbhandle_t)>;

// The writers, each able to run once against the store SetUp made.
const std::vector<std::pair<const char *, Writer>> &writers()
{
	static const std::vector<std::pair<const char *, Writer>> all = {
	    {"create a VLAN kel",
	        [](kel_dbhandle_t h) {
		        kel_t *k = nullptr;
		        const int rc = kel_db_create_kel(h, nullptr, "new", "l2-type=vlan", 0, &k);
		        kel_free_kel(k);
		        return rc;
	        }},
	    {"create a VXLAN kel with its VNI",
	        [](kel_dbhandle_t h) {
		        kel_t *k = nullptr;
		        const int rc = kel_db_create_kel(h, nullptr, "new", "l2-type=vxlan,vni=5050", 0, &k);
		        kel_free_kel(k);
		        return rc;
	        }},
	    {"delete a kel", [](kel_dbhandle_t h) { return kel_db_delete_kel(h, nullptr, "old", 0); }},
	    {"add a port",
	        [](kel_dbhandle_t h) { return kel_db_add_vport(h, "sys-global", "web", "new", nullptr, nullptr, 0); }},
	    {"add a port with a pool address",
	        [](kel_dbhandle_t h) {
		        return kel_db_add_vport(h, "sys-global", "web", "new", "ipaddr=10.0.0.50", nullptr, 0);
	        }},
	    {"add a port with an address outside the pool",
	        [](kel_dbhandle_t h) {
		        return kel_db_add_vport(h, "sys-global", "web", "new", "ipaddr=10.0.0.200", nullptr, 0);
	        }},
	    {"add an IPv6 port",
	        [](kel_dbhandle_t h) { return kel_db_add_vport(h, "sys-global", "six", "new", nullptr, nullptr, 0); }},
	    {"remove a port",
	        [](kel_dbhandle_t h) { return kel_db_remove_vport(h, "sys-global", "web", "p1", nullptr, 0); }},
	    {"add a system port",
	        [](kel_dbhandle_t h) {
		        char name[KEL_NAME_LEN];
		        return kel_db_add_system_vport(h, "sys-global", "web", name);
	        }},
	    {"bind a new system port",
	        [](kel_dbhandle_t h) {
		        kel_t *k = nullptr;
		        const int rc = kel_db_assign_vport(h, "sys-global", "web", nullptr, "vn2", "node1", nullptr,
		            &k);
		        kel_free_kel(k);
		        return rc;
	        }},
	    {"unbind a system port",
	        [](kel_dbhandle_t h) { return kel_db_unassign_vport(h, "vn1", "node1", nullptr); }},
	    {"change a pool",
	        [](kel_dbhandle_t h) {
		        return kel_set_ipnetprop(h, "sys-global", "web", "web-net", "pool=10.0.0.2-10.0.0.120", 0);
	        }},
	    {"change the VLAN range",
	        [](kel_dbhandle_t h) { return kel_db_set_ctrlprop(h, "vlan-range=100-249", nullptr); }},
	    {"add a network",
	        [](kel_dbhandle_t h) {
		        kel_ipnet_t *ip = nullptr;
		        const int rc = kel_db_add_ipnet(h, "sys-global", "bare", "bare-net", "subnet=10.9.0.0/24", &ip,
		            KEL_NAME_DASH_OK);
		        kel_free_ipnet(ip);
		        return rc;
	        }},
	    {"remove a network",
	        [](kel_dbhandle_t h) { return kel_db_remove_ipnet(h, "sys-global", "six", "six-net", 0); }},
	    {"bind a named port",
	        [](kel_dbhandle_t h) {
		        kel_t *k = nullptr;
		        const int rc = kel_db_assign_vport(h, "sys-global", "web", "p1", "vn3", "node1", nullptr, &k);
		        kel_free_kel(k);
		        return rc;
	        }},
	    {"unbind a named port", [](kel_dbhandle_t h) { return kel_db_unassign_vport(h, "vn5", "node1", nullptr); }},
	    {"reset a bound port",
	        [](kel_dbhandle_t h) { return kel_db_reset_vport(h, "sys-global", "web", "p2", "force=yes", 0); }},
	    {"set a port property",
	        [](kel_dbhandle_t h) { return kel_set_vportprop(h, "sys-global", "web", "p1", "maxbw=10", 0); }},
	    {"set a kel property",
	        [](kel_dbhandle_t h) { return kel_set_kelprop(h, "sys-global", "six", "priority=high", 0); }},
	};
	return all;
}

TEST_F(CrashSafety, ACrashBeforeAnyStatementLosesNothing)
{
	ASSERT_EQ(problems(), "");
	for (const auto &[what, write] : writers()) {
		int completed = 0, crashes = 0;
		for (int nth = 1; completed == 0 && nth < 200; nth++) {
			SCOPED_TRACE(std::string(what) + ", dying before statement " + std::to_string(nth));
			save_store();
			const pid_t pid = fork();
			if (pid == 0) {
				kel_dbhandle_t h = nullptr;
				if (kel_db_open(&h, KEL_DB_READWRITE) != KEL_SUCCESS)
					_exit(1);
				kel::fault::die_at_nth_statement(nth, kDied);
				_exit(write(h) == KEL_SUCCESS ? 0 : 2);
			}
			const int status = kel::test::wait_exit(pid);
			ASSERT_TRUE(status == kDied || status == 0) << "status " << status;
			completed = status == 0;
			crashes += status == kDied;
			EXPECT_EQ(problems(), "");
			restore_store();
		}
		EXPECT_EQ(completed, 1) << what << " never completed";
		EXPECT_GT(crashes, 0) << what;
	}
}

// Each writer commits exactly once: what it draws and what it writes go to disk in one
// durable commit, which is both what makes a crash lose nothing and what an add costs.
TEST_F(CrashSafety, EachWriterCommitsOnce)
{
	for (const auto &[what, write] : writers()) {
		SCOPED_TRACE(what);
		save_store();
		const pid_t pid = fork();
		if (pid == 0) {
			kel_dbhandle_t h = nullptr;
			if (kel_db_open(&h, KEL_DB_READWRITE) != KEL_SUCCESS)
				_exit(100);
			int commits = 0;
			sqlite3_commit_hook(
			    h->edh_db,
			    [](void *n) {
				    ++*static_cast<int *>(n);
				    return 0;
			    },
			    &commits);
			_exit(write(h) == KEL_SUCCESS ? std::min(commits, 99) : 101);
		}
		EXPECT_EQ(kel::test::wait_exit(pid), 1) << "commits (100, 101: the writer failed)";
		restore_store();
	}
}

// Writers in three processes, each on its own handle, killed together at a random
// instant, round after round on one store.
TEST_F(CrashSafety, WritersKilledAtRandomLoseNothing)
{
	std::mt19937 random(20261123);
	std::string last = dump();
	int changed = 0;  // rounds in which the writers got something done
	// A busy machine (or the sanitizers) gives the writers less done in a round: a round
	// that got nothing done makes the next one longer, and more rounds make up for it.
	long span_us = 60000;
	for (int round = 0; round < 40 || (changed <= 20 && round < 200); round++) {
		SCOPED_TRACE(round);
		std::vector<pid_t> pids;
		for (int w = 0; w < 3; w++) {
			const unsigned seed = random();
			const pid_t pid = fork();
			if (pid == 0) {
				std::mt19937 mine(seed);
				kel_dbhandle_t h = nullptr;
				if (kel_db_open(&h, KEL_DB_READWRITE) != KEL_SUCCESS)
					_exit(1);
				for (;;) {
					const std::string name = "w" + std::to_string(mine() % 6);
					kel_t *k = nullptr;
					char sys[KEL_NAME_LEN];
					switch (mine() % 6) {
					case 0:
						(void)kel_db_create_kel(h, nullptr, name.c_str(),
						    mine() % 2 ? "l2-type=vxlan" : nullptr, 0, &k);
						kel_free_kel(k);
						break;
					case 1: (void)kel_db_delete_kel(h, nullptr, name.c_str(), 0); break;
					case 2:
						(void)kel_db_add_vport(h, "sys-global", "web", name.c_str(), nullptr,
						    nullptr, 0);
						break;
					case 3:
						(void)kel_db_remove_vport(h, "sys-global", "web", name.c_str(),
						    "force=yes", 0);
						break;
					case 4:
						(void)kel_db_add_vport(h, "sys-global", "six", name.c_str(), nullptr,
						    nullptr, 0);
						break;
					case 5: (void)kel_db_add_system_vport(h, "sys-global", "old", sys); break;
					}
				}
			}
			pids.push_back(pid);
		}
		usleep(static_cast<useconds_t>(5000 + random() % span_us));
		for (pid_t pid : pids)
			kill(pid, SIGKILL);
		for (pid_t pid : pids)
			waitpid(pid, nullptr, 0);
		ASSERT_EQ(problems(), "");
		const std::string now = dump();
		changed += now != last;
		if (now == last)
			span_us = std::min(span_us * 2, 2000000L);
		last = now;
	}
	EXPECT_GT(changed, 20) << "the writers hardly got anything done";
}

}  // namespace
