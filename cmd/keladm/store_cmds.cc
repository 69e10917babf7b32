// Subcommands that act on the configuration store as a whole.
#include <uuid/uuid.h>

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
	// A controller needs an identity; a new one gets one, an existing one keeps its own.
	char uuid[37];
	rc = kel_get_controller_togprop("uuid", uuid, sizeof(uuid));
	if (rc == KEL_E_NOTFOUND) {
		uuid_t uu;
		uuid_generate_time(uu);
		uuid_unparse(uu, uuid);
		rc = kel_set_controller_togprop("uuid", uuid);
	}
	if (rc != KEL_SUCCESS)
		return fail("cannot give the controller its identity", rc);
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
