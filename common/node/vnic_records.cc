// What this host's own records know of its VNICs, for when the controller cannot be
// asked: each VNIC's name, its port's MAC address and address, and its kel's UUID. The
// names of the kel, the port and the tenant are the controller's alone.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kel/libkel_node.h>
#include "c_boundary.h"
#include "fabric_links.h"
#include "owners.h"

namespace {

char *copy(const std::string &s)
{
	char *out = strdup(s.c_str());
	if (out == nullptr)
		throw std::bad_alloc();
	return out;
}

kelcntl_PropertyNV *property(const char *name, const std::string &value)
{
	auto *nv = static_cast<kelcntl_PropertyNV *>(std::calloc(1, sizeof(kelcntl_PropertyNV)));
	if (nv == nullptr)
		throw std::bad_alloc();
	kel::Owned<kelcntl_PropertyNV, kelcntl_PropertyNV_free> owned(nv);
	nv->epnv_name = copy(name);
	nv->epnv_value = copy(value);
	return owned.release();
}

// The port's address as the controller writes it: "ADDRESS/PREFIX" ("" without a lease).
std::string address_of(const wexo::fabric::Vnic &v)
{
	if (!v.lease)
		return "";
	char text[INET6_ADDRSTRLEN] = "";
	const void *addr = v.lease->family == AF_INET6 ? static_cast<const void *>(&v.lease->addr6) : &v.lease->addr;
	if (inet_ntop(v.lease->family, addr, text, sizeof(text)) == nullptr)
		return "";
	return std::string(text) + "/" + std::to_string(v.lease->plen);
}

kelcntl_VPortInfo *record_info(const wexo::fabric::Vnic &v)
{
	auto *info = static_cast<kelcntl_VPortInfo *>(std::calloc(1, sizeof(kelcntl_VPortInfo)));
	if (info == nullptr)
		throw std::bad_alloc();
	kel::Owned<kelcntl_VPortInfo, kelcntl_VPortInfo_free> owned(info);
	for (char **unknown :
	    {&info->evpi_name, &info->evpi_uuid, &info->evpi_kelname, &info->evpi_tenantname, &info->evpi_hostname})
		*unknown = copy("");
	info->evpi_keluuid = copy(v.lease ? v.lease->kel : "");
	info->evpi_vnicname = copy(v.name);
	info->evpi_status = EVPS_USED;
	// The spelling the controller writes: no leading zeros.
	char mac[18];
	std::snprintf(mac, sizeof(mac), "%x:%x:%x:%x:%x:%x", v.mac[0], v.mac[1], v.mac[2], v.mac[3], v.mac[4],
	    v.mac[5]);
	info->evpi_props = static_cast<kelcntl_PropertyNV **>(std::calloc(2, sizeof(kelcntl_PropertyNV *)));
	if (info->evpi_props == nullptr)
		throw std::bad_alloc();
	info->evpi_props[info->evpi_props_count++] = property("macaddr", mac);
	if (const std::string ip = address_of(v); !ip.empty())
		info->evpi_props[info->evpi_props_count++] = property("ipaddr", ip);
	return owned.release();
}

}  // namespace

extern "C" int kel_get_recorded_vnicinfo(kelcntl_VPortInfo ***array, int *count) noexcept
{
	if (array == nullptr || count == nullptr)
		return KEL_E_INVALID_ARGS;
	*array = nullptr;
	*count = 0;
	return kel::c_boundary([&] {
		const std::vector<wexo::fabric::Vnic> vnics = wexo::fabric::vnics();
		const int n = static_cast<int>(vnics.size());
		kel::OwnedArray<kelcntl_VPortInfo, kelcntl_VPortInfo_array_free> out(
		    static_cast<kelcntl_VPortInfo **>(std::calloc(vnics.size() + 1, sizeof(kelcntl_VPortInfo *))), n);
		if (out.get() == nullptr)
			return KEL_E_NOMEM;
		for (int i = 0; i < n; i++)
			out.get()[i] = record_info(vnics[static_cast<size_t>(i)]);
		*array = out.release(count);
		return KEL_SUCCESS;
	});
}
