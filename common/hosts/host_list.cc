// The hosts an operator added to the fabric (keladm add-host): known to the controller
// before any port is bound there, so that show-host and verify ask them too. Kept as
// rows ('host', NAME) of the store's table of named values, which both engines have.
#include <string>
#include <vector>

#include "audit.h"
#include "c_boundary.h"
#include "host_list.h"
#include "kelnet.h"
#include "sql.h"

namespace {

constexpr const char *kRowName = "host";
// More than any fabric has, and few enough that a listing stays cheap.
constexpr int kMaxHosts = 65536;

int host_rows(kel_dbhandle_t h, const char *host, int *count)
{
	*count = 0;
	return kel::for_each_row(h, "SELECT COUNT(*) FROM misc_tbl WHERE misc_name = ? AND misc_value = ?",
	    {kRowName, host}, [&](kel::Statement &st) {
		    *count = st.integer(0);
		    return KEL_SUCCESS;
	    });
}

int add_host(kel_dbhandle_t h, const char *host)
{
	kel::WriteScope write(h);
	int rc = write.begin(), there = 0, all = 0;
	if (rc != KEL_SUCCESS || (rc = host_rows(h, host, &there)) != KEL_SUCCESS)
		return rc;
	if (there != 0)
		return KEL_E_EXISTS;
	if ((rc = kel::for_each_row(h, "SELECT COUNT(*) FROM misc_tbl WHERE misc_name = ?", {kRowName},
	         [&](kel::Statement &st) {
		         all = st.integer(0);
		         return KEL_SUCCESS;
	         })) != KEL_SUCCESS)
		return rc;
	if (all >= kMaxHosts)
		return KEL_E_NORESOURCE;
	if ((rc = kel::exec(h, "INSERT INTO misc_tbl (misc_name, misc_value) VALUES(?, ?)", {kRowName, host})) !=
	    KEL_SUCCESS)
		return rc;
	return write.commit();
}

int remove_host(kel_dbhandle_t h, const char *host)
{
	kel::WriteScope write(h);
	int rc = write.begin(), there = 0;
	if (rc != KEL_SUCCESS || (rc = host_rows(h, host, &there)) != KEL_SUCCESS)
		return rc;
	if (there == 0)
		return KEL_E_NOTFOUND;
	if ((rc = kel::exec(h, "DELETE FROM misc_tbl WHERE misc_name = ? AND misc_value = ?", {kRowName, host})) !=
	    KEL_SUCCESS)
		return rc;
	return write.commit();
}

}  // namespace

namespace kel {

int added_hosts(kel_dbhandle_t h, std::vector<std::string> *out)
{
	return for_each_row(h, "SELECT misc_value FROM misc_tbl WHERE misc_name = ? ORDER BY misc_value", {kRowName},
	    [&](Statement &st) {
		    if (const char *name = st.text(0))
			    out->push_back(name);
		    return KEL_SUCCESS;
	    });
}

}  // namespace kel

extern "C" {

int kel_db_add_host(kel_dbhandle_t h, const char *host) noexcept
{
	if (h == nullptr || host == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!valid_hostname(host))
		return KEL_E_INVALID_HOSTNAME;
	return kel::audit::logged(
	    [&] {
		    return kel::audit::Change{"add-host", "", host, ""};
	    },
	    [&] { return add_host(h, host); });
}

int kel_db_remove_host(kel_dbhandle_t h, const char *host) noexcept
{
	if (h == nullptr || host == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::audit::logged(
	    [&] {
		    return kel::audit::Change{"remove-host", "", host, ""};
	    },
	    [&] { return remove_host(h, host); });
}

int kel_db_walk_hosts(kel_dbhandle_t h, int (*fn)(const char *host, void *arg), void *arg) noexcept
{
	if (h == nullptr || fn == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		kel::StoreLock lock(h);
		if (int rc = lock.status(); rc != KEL_SUCCESS)
			return rc;
		std::vector<std::string> hosts;
		if (int rc = kel::added_hosts(h, &hosts); rc != KEL_SUCCESS)
			return rc;
		for (const std::string &host : hosts)
			if (fn(host.c_str(), arg) != 0)
				break;
		return KEL_SUCCESS;
	});
}

}  // extern "C"
