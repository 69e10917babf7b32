// Subcommands that act on the configuration store as a whole.
#include "keladm.h"
#include "libkel.h"

namespace keladm {

int create_store(std::span<char *> args)
{
	if (args.size() > 1)
		return usage_error(subcommand("create-store"), "create-store takes no operands");
	int rc = kel_db_create();
	if (rc != KEL_SUCCESS)
		return fail("cannot create the configuration store", rc);
	return kExitOk;
}

int upgrade_store(std::span<char *> args)
{
	if (args.size() > 1)
		return usage_error(subcommand("upgrade-store"), "upgrade-store takes no operands");
	int rc = kel_db_upgrade();
	if (rc != KEL_SUCCESS)
		return fail("cannot upgrade the configuration store", rc);
	return kExitOk;
}

}  // namespace keladm
