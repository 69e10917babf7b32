// Row readers and record lifetimes.
//
// The writers keep every property column a string, host names and the joined switch's
// name and tenant non-NULL, and ipnet_avail_range non-NULL. A store that breaks this (a
// hand edit, a damaged upgrade) must not crash a reader: a NULL text column reads as the
// empty text, a NULL property column as no properties, and unparsable UUID or property
// text fails the read with its code.
#include "records.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "names.h"
#include "subnet.h"
#include "text.h"

namespace {

const char *text_or_empty(const kel::Statement &row, int col)
{
	const char *t = row.text(col);
	return t != nullptr ? t : "";
}

void copy_text(char *dst, size_t size, const kel::Statement &stmt, int col)
{
	kel::copy_text(dst, text_or_empty(stmt, col), size);
}

// UUID columns are cut to a UUID text's size before parsing.
bool read_uuid(const kel::Statement &stmt, int col, uuid_t out)
{
	char text[KEL_UUID_TEXT_LEN];
	copy_text(text, sizeof(text), stmt, col);
	return uuid_parse(text, out) == 0;
}

int read_props(const kel::Statement &stmt, int col, attrset_t **out)
{
	return kel_str2attrset(text_or_empty(stmt, col), out, B_TRUE, ATTRSET_UNIQUE_NAME);
}

// Where the switch's columns stand relative to a port or network read at `offset`.
struct SwitchCols {
	int uuid, name, tenant;
};

using namespace kel::schema;

constexpr SwitchCols kSwitchFirst = {kKelUuid, kKelName, kKelTenant};  // switch lists
constexpr SwitchCols kBehindPort = {kVportColumns + kKelUuid, kVportColumns + kKelName,
    kVportColumns + kKelTenant};  // port lists
constexpr SwitchCols kBehindIpnet = {kIpnetColumns + kKelUuid, kIpnetColumns + kKelName,
    kIpnetColumns + kKelTenant};  // network lists

template <class T>
T *zalloc()
{
	return static_cast<T *>(std::calloc(1, sizeof(T)));
}

// Frees every record of a list with `free_one`, then ends the list's use.
template <class T, void (*free_one)(T *)>
void free_list(void *list)
{
	if (list == nullptr)
		return;
	auto *l = static_cast<list_t *>(list);
	while (auto *record = static_cast<T *>(list_remove_head(l)))
		free_one(record);
	list_destroy(l);
}

}  // namespace

std::string kel_uuid_key(const uuid_t uu)
{
	return std::string(reinterpret_cast<const char *>(uu), sizeof(uuid_t));
}

void kel_create_kellist(list_t *list)
{
	list_create(list, sizeof(kel_t), offsetof(kel_t, kel_node));
}

void kel_create_vportlist(list_t *list)
{
	list_create(list, sizeof(kel_vport_t), offsetof(kel_vport_t, evp_node));
}

void kel_create_ipnetlist(list_t *list)
{
	list_create(list, sizeof(kel_ipnet_t), offsetof(kel_ipnet_t, ei_node));
}

void kel_create_proplist(list_t *list)
{
	list_create(list, sizeof(kel_prop_t), offsetof(kel_prop_t, ep_node));
}

int kel_dbrow2kel(const kel::Statement &stmt, kel_t **out)
{
	*out = nullptr;
	kel_t *kel = zalloc<kel_t>();
	if (kel == nullptr)
		return KEL_E_NOMEM;
	kel_create_vportlist(&kel->kel_ports);
	kel_create_ipnetlist(&kel->kel_ipnets);
	if (!read_uuid(stmt, kKelUuid, kel->kel_uuid)) {
		kel_free_kel(kel);
		return KEL_E_UUID;
	}
	copy_text(kel->kel_tenantname, sizeof(kel->kel_tenantname), stmt, kKelTenant);
	copy_text(kel->kel_name, sizeof(kel->kel_name), stmt, kKelName);
	if (int rc = read_props(stmt, kKelProps, &kel->kel_props); rc != KEL_SUCCESS) {
		kel_free_kel(kel);
		return rc;
	}
	*out = kel;
	return KEL_SUCCESS;
}

int kel_dbrow2vport(const kel::Statement &stmt, kel_vport_t **out, int k, bool with_props)
{
	*out = nullptr;
	if (stmt.is_null(k + kVportUuid))
		return KEL_E_NOTFOUND;  // a switch row without a port
	kel_vport_t *vp = zalloc<kel_vport_t>();
	if (vp == nullptr)
		return KEL_E_NOMEM;
	int rc = KEL_SUCCESS;
	if (!read_uuid(stmt, k + kVportUuid, vp->evp_uuid) || !read_uuid(stmt, k + kVportKeluuid, vp->evp_keluuid))
		rc = KEL_E_UUID;
	if (rc == KEL_SUCCESS) {
		copy_text(vp->evp_name, sizeof(vp->evp_name), stmt, k + kVportName);
		if (with_props)
			rc = read_props(stmt, k + kVportProps, &vp->evp_props);
	}
	if (rc != KEL_SUCCESS) {
		kel_free_vport(vp);
		return rc;
	}
	vp->evp_status = stmt.integer(k + kVportStatus) == VPORT_STATUS_USED ? VPORT_STATUS_USED : VPORT_STATUS_FREE;
	copy_text(vp->evp_vnicname, sizeof(vp->evp_vnicname), stmt, k + kVportVnic);
	copy_text(vp->evp_hostname, sizeof(vp->evp_hostname), stmt, k + kVportHost);
	const SwitchCols sw = k == 0 ? kBehindPort : kSwitchFirst;
	copy_text(vp->evp_kelname, sizeof(vp->evp_kelname), stmt, sw.name);
	copy_text(vp->evp_tenantname, sizeof(vp->evp_tenantname), stmt, sw.tenant);
	*out = vp;
	return KEL_SUCCESS;
}

int kel_dbrow2ipnet(const kel::Statement &stmt, kel_ipnet_t **out, int k)
{
	*out = nullptr;
	if (stmt.is_null(k + kIpnetUuid))
		return KEL_E_NOTFOUND;  // a switch row without a network
	kel_ipnet_t *ip = zalloc<kel_ipnet_t>();
	if (ip == nullptr)
		return KEL_E_NOMEM;
	const SwitchCols sw = k == 0 ? kBehindIpnet : kSwitchFirst;
	int rc = KEL_SUCCESS;
	char *subnet = nullptr;
	if (!read_uuid(stmt, k + kIpnetUuid, ip->ei_uuid) || !read_uuid(stmt, sw.uuid, ip->ei_keluuid))
		rc = KEL_E_UUID;
	if (rc == KEL_SUCCESS) {
		copy_text(ip->ei_name, sizeof(ip->ei_name), stmt, k + kIpnetName);
		rc = read_props(stmt, k + kIpnetProps, &ip->ei_props);
	}
	if (rc == KEL_SUCCESS && (ip->ei_availrange = strdup(text_or_empty(stmt, k + kIpnetAvailRange))) == nullptr)
		rc = KEL_E_NOMEM;
	if (rc == KEL_SUCCESS && attrset_lookup_string(ip->ei_props, "subnet", &subnet) != 0)
		rc = KEL_E_NOTFOUND;
	if (rc == KEL_SUCCESS)
		rc = kel_parse_ipnet(subnet, ip);
	if (rc != KEL_SUCCESS) {
		kel_free_ipnet(ip);
		return rc;
	}
	copy_text(ip->ei_kelname, sizeof(ip->ei_kelname), stmt, sw.name);
	copy_text(ip->ei_tenantname, sizeof(ip->ei_tenantname), stmt, sw.tenant);
	*out = ip;
	return KEL_SUCCESS;
}

int kel_dbrow2kellist(const kel::Statement &stmt, void *cbarg)
{
	auto *arg = static_cast<kel_kellist_cbarg_t *>(cbarg);
	uuid_t uu;
	if (!read_uuid(stmt, kKelUuid, uu))
		return KEL_E_UUID;
	const std::string key = kel_uuid_key(uu);
	kel_t *kel = nullptr;
	bool fresh = false;
	if (auto it = arg->evc_index.find(key); it != arg->evc_index.end()) {
		kel = it->second;
	} else {
		if (int rc = kel_dbrow2kel(stmt, &kel); rc != KEL_SUCCESS)
			return rc;
		list_insert_tail(arg->evc_list, kel);
		arg->evc_index.emplace(key, kel);
		fresh = true;
	}
	int rc = KEL_SUCCESS;
	if (arg->evc_infotype == KEL_VPORTINFO) {
		kel_vport_t *vp = nullptr;
		if ((rc = kel_dbrow2vport(stmt, &vp, KEL_TBL_NCOLS)) == KEL_SUCCESS)
			list_insert_tail(&kel->kel_ports, vp);
	} else if (arg->evc_infotype == KEL_IPNETINFO) {
		kel_ipnet_t *ip = nullptr;
		if ((rc = kel_dbrow2ipnet(stmt, &ip, KEL_TBL_NCOLS)) == KEL_SUCCESS)
			list_insert_tail(&kel->kel_ipnets, ip);
	}
	if (rc == KEL_E_NOTFOUND)
		return KEL_SUCCESS;  // the switch has none: it stays with an empty list
	if (rc != KEL_SUCCESS && fresh) {
		arg->evc_index.erase(key);
		list_remove(arg->evc_list, kel);
		kel_free_kel(kel);
	}
	return rc;
}

int kel_dbrow2vportlist(const kel::Statement &stmt, void *list)
{
	kel_vport_t *vp = nullptr;
	int rc = kel_dbrow2vport(stmt, &vp, 0);
	if (rc == KEL_SUCCESS)
		list_insert_tail(static_cast<list_t *>(list), vp);
	return rc;
}

int kel_dbrow2ipnetlist(const kel::Statement &stmt, void *list)
{
	kel_ipnet_t *ip = nullptr;
	int rc = kel_dbrow2ipnet(stmt, &ip, 0);
	if (rc == KEL_SUCCESS)
		list_insert_tail(static_cast<list_t *>(list), ip);
	return rc;
}

extern "C" {

void kel_free_vport(kel_vport_t *vp) noexcept
{
	if (vp == nullptr)
		return;
	attrset_free(vp->evp_props);
	std::free(vp);
}

void kel_free_ipnet(kel_ipnet_t *ip) noexcept
{
	if (ip == nullptr)
		return;
	attrset_free(ip->ei_props);
	std::free(ip->ei_availrange);
	std::free(ip);
}

void kel_free_prop(kel_prop_t *prop) noexcept
{
	if (prop == nullptr)
		return;
	std::free(prop->ep_current);
	std::free(prop);
}

void kel_free_kel(kel_t *kel) noexcept
{
	if (kel == nullptr)
		return;
	attrset_free(kel->kel_props);
	kel_free_vportlist(&kel->kel_ports);
	kel_free_ipnetlist(&kel->kel_ipnets);
	std::free(kel);
}

void kel_free_kellist(void *list) noexcept
{
	free_list<kel_t, kel_free_kel>(list);
}

void kel_free_vportlist(void *list) noexcept
{
	free_list<kel_vport_t, kel_free_vport>(list);
}

void kel_free_ipnetlist(void *list) noexcept
{
	free_list<kel_ipnet_t, kel_free_ipnet>(list);
}

void kel_free_proplist(void *list) noexcept
{
	free_list<kel_prop_t, kel_free_prop>(list);
}

}  // extern "C"
