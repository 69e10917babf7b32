// Several processes create and delete switches at once on one store. Whatever the
// interleaving, no VLAN ID may be handed out twice, and the free pool together with the
// IDs held must make up the range exactly.
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>

#include <kel/libkel.h>
#include "pool.h"
#include "range.h"
#include "store_fixture.h"

namespace {

using AllocationConcurrency = kel::test::StoreFixture;

constexpr int kWorkers = 4;
constexpr int kRounds = 63;                // twelve create-delete cycles, then three held
constexpr const char *kRange = "100-115";  // fewer IDs than the workers want

// One worker: its own handle, creating and deleting its own switches, keeping at most
// five at a time. Exit status 0 when every call answered as it should.
int worker(int id)
{
	kel_dbhandle_t h = nullptr;
	if (kel_db_open(&h, SQLITE_OPEN_READWRITE) != KEL_SUCCESS)
		return 10;
	int status = 0;
	bool created = false;
	for (int round = 0; round < kRounds && status == 0; round++) {
		const std::string name = "w" + std::to_string(id) + "k" + std::to_string(round % 5);
		kel_t *k = nullptr;
		int rc = kel_db_create_kel(h, nullptr, name.c_str(), nullptr, 0, &k);
		kel_free_kel(k);
		created = created || rc == KEL_SUCCESS;
		if (rc == KEL_E_EXISTS)
			rc = kel_db_delete_kel(h, nullptr, name.c_str(), 0);
		// Running out of IDs is fine when the others hold them all.
		if (rc != KEL_SUCCESS && rc != KEL_E_NO_VLANID)
			status = 1;
	}
	kel_db_close(h);
	// A worker that never got an ID tested nothing. How many the workers hold at the end
	// depends on the interleaving (a create refused for want of IDs shifts that name's
	// create-delete cycle), and may be none.
	return status != 0 ? status : created ? 0 : 2;
}

TEST_F(AllocationConcurrency, NoIdIsEverHandedOutTwice)
{
	set_ctrl("vlan-range", kRange);
	set_ctrl("vlan-range-avail", kRange);
	pid_t pids[kWorkers];
	for (int i = 0; i < kWorkers; i++)
		if ((pids[i] = fork()) == 0)
			_exit(worker(i));
	for (pid_t pid : pids)
		EXPECT_EQ(kel::test::wait_exit(pid), 0);

	// The IDs the switches hold are distinct, and held plus free is the whole range.
	std::set<std::string> held;
	int switches = 0;
	ASSERT_EQ(kel::for_each_row(h_, "SELECT kel_props FROM kel_tbl", {},
	              [&](kel::Statement &st) {
		              const std::string props = st.text(0);
		              const size_t at = props.find("vlanid=");
		              EXPECT_NE(at, std::string::npos) << props;
		              held.insert(props.substr(at + 7, props.find(',', at) - at - 7));
		              switches++;
		              return KEL_SUCCESS;
	              }),
	    KEL_SUCCESS);
	EXPECT_EQ(static_cast<int>(held.size()), switches) << "an ID was handed out twice";
	std::string pool = ctrl("vlan-range-avail");
	for (const std::string &id : held) {
		std::string rest;
		ASSERT_EQ(kel::pool::take(pool, id, KEL_RANGE_NUMBER, &rest), KEL_E_NORESOURCE)
		    << id << " is held and free at once";
		pool = kel::pool::give(pool, id, KEL_RANGE_NUMBER);
	}
	EXPECT_EQ(pool, kRange);
}

}  // namespace
