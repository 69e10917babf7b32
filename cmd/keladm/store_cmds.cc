// Subcommands that act on the configuration store as a whole.
#include <unistd.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "keladm.h"
#include "owners.h"
#include "paths.h"

namespace keladm {

int create_store(const Subcommand &cmd, const Options &opts)
{
	if (!opts.operands.empty())
		return usage_error(cmd, "create-store takes no operands");
	int rc = kel_db_create();
	if (rc != KEL_SUCCESS) {
		fail("cannot create the configuration store", rc);
		// The package makes the directory; by hand it is easily missed.
		const std::string dir = kel::paths::under_root(kel::paths::kEtcDir);
		if (!store_in_database() && access(dir.c_str(), F_OK) != 0 && errno == ENOENT)
			std::fprintf(stderr, "keladm: %s does not exist: make it first (mkdir -p %s)\n", dir.c_str(),
			    dir.c_str());
		return kExitFailed;
	}
	// A controller needs an identity; a new one gets one, an existing one keeps its own.
	char uuid[KEL_UUID_TEXT_LEN];
	rc = kel_get_controller_togprop("uuid", uuid, sizeof(uuid));
	if (rc == KEL_E_NOTFOUND) {
		uuid_t uu;
		uuid_generate_time(uu);
		uuid_unparse_lower(uu, uuid);
		rc = kel_set_controller_togprop("uuid", uuid);
	}
	if (rc != KEL_SUCCESS)
		return fail("cannot give the controller its identity", rc);
	return kExitOk;
}

// Which engine holds the store is the controller's setting; moving what a store holds
// from one to the other is not this command's business.
int set_store(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() > 1)
		return usage_error(cmd, "set-store takes one connection string (quote it)");
	const char *conninfo = opts.operands.empty() || *opts.operands[0] == '\0' ? nullptr : opts.operands[0];
	const int rc = kel_set_controller_togprop("store", conninfo);
	if (rc != KEL_SUCCESS && !(rc == KEL_E_NOTFOUND && conninfo == nullptr))
		return fail("cannot set where the configuration store is kept", rc);
	return kExitOk;
}

// "file" is the SQLite file; anything else a connection string.
int copy_store(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 2)
		return usage_error(cmd, "copy-store takes a source and a target");
	auto store = [](const char *operand) { return std::strcmp(operand, "file") == 0 ? "" : operand; };
	if (std::strcmp(store(opts.operands[0]), store(opts.operands[1])) == 0)
		return usage_error(cmd, "copy-store copies a store into another one");
	const int rc = kel_db_copy_store(store(opts.operands[0]), store(opts.operands[1]));
	if (rc == KEL_E_EXISTS)
		return fail("cannot copy the configuration store: the target holds a store already", rc);
	if (rc == KEL_E_NOTFOUND)
		return fail("cannot copy the configuration store: there is no store at the source", rc);
	if (rc != KEL_SUCCESS)
		return fail("cannot copy the configuration store", rc);
	return kExitOk;
}

int upgrade_store(const Subcommand &cmd, const Options &opts)
{
	if (!opts.operands.empty())
		return usage_error(cmd, "upgrade-store takes no operands");
	int rc = kel_db_upgrade();
	if (rc != KEL_SUCCESS)
		return fail("cannot upgrade the configuration store", rc);
	return kExitOk;
}

int check_store(const Subcommand &cmd, const Options &opts)
{
	const bool repair = opts.repair;
	if (!opts.operands.empty())
		return usage_error(cmd, "check-store takes no operands");
	kel::StoreHandle store;
	if (open_store(&store, repair) != KEL_SUCCESS)
		return kExitFailed;
	kel::RecordList<kel_store_problem_t> problems;
	const int rc = problems.read(
	    [&](list_t *l) { return kel_db_check_store(store.get(), repair ? KEL_CHECK_REPAIR : 0, l); });
	if (rc != KEL_SUCCESS)
		return fail(repair ? "cannot repair the configuration store" : "cannot check the configuration store",
		    rc);
	// One line per problem; with --repair, whether it was put right.
	bool left = false;
	for (kel_store_problem_t *p : problems) {
		const char *state = !repair ? "" : p->esp_repaired ? "repaired: " : "not repaired: ";
		std::printf("%s%s: %s\n", state, p->esp_object, p->esp_text);
		left = left || !p->esp_repaired;
	}
	return left ? kExitFailed : kExitOk;
}

}  // namespace keladm
