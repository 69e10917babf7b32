#include "allocator.h"

#include <fcntl.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "attrset_ptr.h"
#include "filter.h"
#include "kelnet.h"
#include "names.h"
#include "owners.h"
#include "pool.h"
#include "range.h"
#include "records.h"
#include "sql.h"
#include "unique_fd.h"

const uint8_t vport_def_prefix[3] = {0x02, 0x08, 0x20};

namespace {

constexpr size_t kAddrLen = 46;
constexpr const char kSysVportPrefix[] = "sys-vport";

// One kind of ID: its pool row and the codes its draws map KEL_E_NORESOURCE to.
struct IdPool {
	const char *filter;
	int none_left;
	int taken;
};

constexpr IdPool kVlanIds = {"ctrl_pname=vlan-range-avail", KEL_E_NO_VLANID, KEL_E_VLANID_UNAVAIL};
constexpr IdPool kVnis = {"ctrl_pname=vxlan-range-avail", KEL_E_NO_VNI, KEL_E_VNI_UNAVAIL};

int next_id(kel_dbhandle_t h, const IdPool &pool, int *id)
{
	char text[32];
	int rc = kel_get_next_resource(h, "ctrl_tbl", "ctrl_pval", pool.filter, text, sizeof(text), KEL_RANGE_NUMBER);
	if (rc == KEL_E_NORESOURCE)
		return pool.none_left;
	return rc != KEL_SUCCESS ? rc : kel_str2int(text, id);
}

int this_id(kel_dbhandle_t h, const IdPool &pool, int id)
{
	const std::string text = std::to_string(id);
	int rc = kel_get_this_resource(h, "ctrl_tbl", "ctrl_pval", pool.filter, text.c_str(), KEL_RANGE_NUMBER);
	return rc == KEL_E_NORESOURCE ? pool.taken : rc;
}

int free_id(kel_dbhandle_t h, const IdPool &pool, int id)
{
	const std::string text = std::to_string(id);
	return kel_free_resource(h, "ctrl_tbl", "ctrl_pval", pool.filter, text.c_str(), KEL_RANGE_NUMBER);
}

// "ipnet=<uuid>": selects the ipnet by its own key.
std::string ipnet_filter(const uuid_t uu)
{
	return "ipnet=" + kel::uuid_text(uu);
}

int kel_filter(const char *tenant, const char *kel, char (&filter)[KEL_FILTER_LEN])
{
	return kel::names_filter(filter, tenant, kel);
}

}  // namespace

int kel_ipnet_rangetype(sa_family_t af)
{
	return af == AF_INET ? KEL_RANGE_IPV4 : KEL_RANGE_IPV6;
}

int kel_db_get_next_vlanid(kel_dbhandle_t h, int *vlanid)
{
	return next_id(h, kVlanIds, vlanid);
}
int kel_db_get_this_vlanid(kel_dbhandle_t h, int vlanid)
{
	return this_id(h, kVlanIds, vlanid);
}
int kel_db_free_vlanid(kel_dbhandle_t h, int vlanid)
{
	return free_id(h, kVlanIds, vlanid);
}
int kel_db_get_next_vni(kel_dbhandle_t h, int *vni)
{
	return next_id(h, kVnis, vni);
}
int kel_db_get_this_vni(kel_dbhandle_t h, int vni)
{
	return this_id(h, kVnis, vni);
}
int kel_db_free_vni(kel_dbhandle_t h, int vni)
{
	return free_id(h, kVnis, vni);
}

int kel_ipnpool_contains_addr(kel_dbhandle_t h, const char *filter, const char *addr, sa_family_t af, boolean_t *inpool)
{
	*inpool = B_FALSE;
	char props[1024];
	int rc = kel_db_get_filtered_value(h, "ipnet_tbl", "ipnet_props", filter, props, sizeof(props),
	    DATA_TYPE_STRING);
	if (rc != KEL_SUCCESS)
		return rc;
	attrset_t *set = nullptr;
	if ((rc = kel_str2attrset(props, &set, B_TRUE, ATTRSET_UNIQUE_NAME)) != KEL_SUCCESS)
		return rc;
	const kel::AttrSetPtr owned(set);
	char *pool = nullptr;
	if (attrset_lookup_string(set, "pool", &pool) != 0) {
		*inpool = B_TRUE;  // an ipnet without a pool is all pool
	} else {
		rc = kel_rsrc_range_contains(pool, addr, kel_ipnet_rangetype(af));
		if (rc == KEL_SUCCESS)
			*inpool = B_TRUE;
		else if (rc == KEL_E_RANGE_INUSE)
			rc = KEL_SUCCESS;
	}
	return rc;
}

int kel_db_get_next_ipaddr(kel_dbhandle_t h, const kel_ipnet_t *ipnet, char *addr)
{
	const std::string filter = ipnet_filter(ipnet->ei_uuid);
	const int type = kel_ipnet_rangetype(ipnet->ei_af);
	// Both pools change in one transaction (a caller's, when there is one): a crash
	// between the two updates must not leave the address out of one pool only.
	kel::Transaction tx(h);
	int rc = tx.begin();
	if (rc == KEL_SUCCESS)
		rc = kel_get_next_resource(h, "ipnet_tbl", "ipnet_avail_pool_range", filter.c_str(), addr, kAddrLen,
		    type);
	if (rc != KEL_SUCCESS)
		return rc;
	rc = kel_get_this_resource(h, "ipnet_tbl", "ipnet_avail_range", filter.c_str(), addr, type);
	// Inside a caller's transaction a failure is not rolled back here: give it back.
	if (rc != KEL_SUCCESS)
		(void)kel_free_resource(h, "ipnet_tbl", "ipnet_avail_pool_range", filter.c_str(), addr, type);
	return rc != KEL_SUCCESS ? rc : tx.commit();
}

int kel_db_get_this_ipaddr(kel_dbhandle_t h, const kel_ipnet_t *ipnet, const char *addr)
{
	const std::string filter = ipnet_filter(ipnet->ei_uuid);
	const int type = kel_ipnet_rangetype(ipnet->ei_af);
	boolean_t inpool = B_FALSE;
	int rc = kel_ipnpool_contains_addr(h, filter.c_str(), addr, ipnet->ei_af, &inpool);
	if (rc != KEL_SUCCESS)
		return rc;
	kel::Transaction tx(h);
	if ((rc = tx.begin()) != KEL_SUCCESS)
		return rc;
	if (inpool)
		rc = kel_get_this_resource(h, "ipnet_tbl", "ipnet_avail_pool_range", filter.c_str(), addr, type);
	if (rc == KEL_SUCCESS)
		rc = kel_get_this_resource(h, "ipnet_tbl", "ipnet_avail_range", filter.c_str(), addr, type);
	return rc != KEL_SUCCESS ? rc : tx.commit();
}

int kel_db_free_ipaddr(kel_dbhandle_t h, const uuid_t ipnet_uuid, sa_family_t af, const char *addr)
{
	const std::string filter = ipnet_filter(ipnet_uuid);
	const int type = kel_ipnet_rangetype(af);
	boolean_t inpool = B_FALSE;
	int rc = kel_ipnpool_contains_addr(h, filter.c_str(), addr, af, &inpool);
	if (rc == KEL_SUCCESS && inpool)
		rc = kel_free_resource(h, "ipnet_tbl", "ipnet_avail_pool_range", filter.c_str(), addr, type);
	if (rc == KEL_SUCCESS)
		rc = kel_free_resource(h, "ipnet_tbl", "ipnet_avail_range", filter.c_str(), addr, type);
	return rc;
}

boolean_t kel_is_defrouter(const char *addr, const kel_ipnet_t *ipnet)
{
	char *router = nullptr;
	if (addr == nullptr || attrset_lookup_string(ipnet->ei_props, "defrouter", &router) != 0)
		return B_FALSE;
	return std::strcmp(addr, router) == 0 ? B_TRUE : B_FALSE;
}

int kel_db_get_next_sysvportname(kel_dbhandle_t h, const char *tenant, const char *kel, char *name, size_t namelen)
{
	char filter[KEL_FILTER_LEN], number[1024];
	int rc = kel_filter(tenant, kel, filter);
	if (rc == KEL_SUCCESS)
		rc = kel_get_next_resource(h, "kel_tbl", "kel_vportnum_range", filter, number, sizeof(number),
		    KEL_RANGE_NUMBER);
	if (rc == KEL_SUCCESS &&
	    static_cast<size_t>(std::snprintf(name, namelen, "%s%s", kSysVportPrefix, number)) >= namelen) {
		(void)kel_free_resource(h, "kel_tbl", "kel_vportnum_range", filter, number, KEL_RANGE_NUMBER);
		rc = KEL_E_NOSPACE;
	}
	return rc;
}

int kel_db_free_sysvportname(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name)
{
	char filter[KEL_FILTER_LEN];
	int rc = kel_filter(tenant, kel, filter);
	if (rc != KEL_SUCCESS)
		return rc;
	return kel_free_resource(h, "kel_tbl", "kel_vportnum_range", filter, name + sizeof(kSysVportPrefix) - 1,
	    KEL_RANGE_NUMBER);
}

// A short read is read again until the random octets are all filled: a partly random
// MAC address would collide far more often than its length promises.
int kel_macaddr_random(uint8_t *mac, size_t len)
{
	if (len < sizeof(vport_def_prefix))
		return -1;
	const kel::UniqueFd random(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
	if (!random.valid())
		return -1;
	std::memcpy(mac, vport_def_prefix, sizeof(vport_def_prefix));
	size_t got = sizeof(vport_def_prefix);
	while (got < len) {
		const ssize_t n = read(random.get(), mac + got, len - got);
		if (n > 0)
			got += static_cast<size_t>(n);
		else if (n == 0 || errno != EINTR)
			break;
	}
	return got == len ? 0 : -1;
}

int kel_parse_port_mac(const char *given, uint8_t mac[6], char (&text)[18])
{
	int len = 0;
	unsigned char *bytes = _link_aton(given, &len);
	const bool ok = bytes != nullptr && len == 6 && (bytes[0] & 1) == 0 &&
	    std::any_of(bytes, bytes + 6, [](unsigned char b) { return b != 0; });
	if (ok) {
		std::memcpy(mac, bytes, 6);
		_link_ntoa(mac, text, 6, 1);
	}
	std::free(bytes);
	return ok ? KEL_SUCCESS : KEL_E_INVALID_MACADDR;
}

int kel_check_ipnet_overlap(kel_dbhandle_t h, const kel_ipnet_t *ipnet)
{
	kel::RecordList<kel_ipnet_t> nets;
	int rc = nets.read([&](list_t *l) { return kel_db_get_filtered_ipnetlist(h, "", l, 0); });
	if (rc == KEL_E_IPNET_NOTFOUND)
		return KEL_SUCCESS;
	if (rc != KEL_SUCCESS)
		return rc;
	const sa_family_t af = ipnet->ei_af;
	for (kel_ipnet_t *n : nets) {
		if (n->ei_af != af)
			continue;
		const char *S = ipnet->ei_sastr, *E = ipnet->ei_eastr;
		const char *s = n->ei_sastr, *e = n->ei_eastr;
		if ((kel_ipcmp(af, S, s) >= 0 || kel_ipcmp(af, E, s) >= 0) &&
		    (kel_ipcmp(af, S, e) <= 0 || kel_ipcmp(af, E, e) <= 0))
			return KEL_E_IPNET_OVERLAP;
	}
	return KEL_SUCCESS;
}

int kel_valid_poolrange(const char *pool, const char *defrouter, const kel_ipnet_t *ipnet)
{
	const int rc = kel_rsrc_valid_range(pool, kel_ipnet_rangetype(ipnet->ei_af), ipnet->ei_sastr, ipnet->ei_eastr,
	    defrouter);
	if (rc == KEL_E_INVALID_RANGE)
		return KEL_E_INVALID_POOL;
	if (rc == KEL_E_RANGE_EXCLUSIVE)
		return KEL_E_POOL_DEFROUTER;
	return rc;
}
