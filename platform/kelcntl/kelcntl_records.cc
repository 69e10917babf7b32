// The records' free functions and their readers from the wire.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "kelcntl_wire.h"
#include "owners.h"
#include "request.h"

using nlohmann::json;

namespace {

template <class T>
T *zeroed()
{
	auto *p = static_cast<T *>(std::calloc(1, sizeof(T)));
	if (p == nullptr)
		throw std::bad_alloc();
	return p;
}

// A new record, owned while it is being filled, so a throw part-way frees what was built.
template <class T, void (*Free)(T *)>
kel::Owned<T, Free> building()
{
	return kel::Owned<T, Free>(zeroed<T>());
}

// The records are read member by member through the transport's readers: a member that
// is missing, of another type, or a text holding a NUL makes the whole record unreadable.
char *text(const json &j, const char *key)
{
	char *s = strdup(nuq::required_text(j, key).c_str());
	if (s == nullptr)
		throw std::bad_alloc();
	return s;
}

template <class T, void (*Free)(T *)>
void free_array(T **arr, int count)
{
	if (arr == nullptr)
		return;
	for (int i = 0; i < count; i++)
		Free(arr[i]);
	std::free(arr);
}

// The array of records `make` reads from each item of `items`, and its length into
// *count. A throw part-way frees the records made so far and the array.
template <class T, void (*Free)(T *), class Make>
T **array_from(const json &items, int *count, Make make)
{
	const auto &list = nuq::required_array(items);
	const size_t n = list.size();
	kel::OwnedArray<T, free_array<T, Free>> arr(static_cast<T **>(std::calloc(n == 0 ? 1 : n, sizeof(T *))),
	    static_cast<int>(n));
	if (arr.get() == nullptr)
		throw std::bad_alloc();
	for (size_t i = 0; i < n; i++)
		arr.get()[i] = make(list[i]);
	return arr.release(count);
}

kelcntl_PropertyNV *nv_from(const json &j)
{
	auto nv = building<kelcntl_PropertyNV, kelcntl_PropertyNV_free>();
	nv->epnv_name = text(j, "epnv_name");
	nv->epnv_value = text(j, "epnv_value");
	return nv.release();
}

kelcntl_PropertyNV **props_from(const json &items, int *count)
{
	return array_from<kelcntl_PropertyNV, kelcntl_PropertyNV_free>(items, count, nv_from);
}

kelcntl_IPnetInfo *ipnet_from(const json &j)
{
	auto n = building<kelcntl_IPnetInfo, kelcntl_IPnetInfo_free>();
	n->eipi_name = text(j, "eipi_name");
	n->eipi_uuid = text(j, "eipi_uuid");
	n->eipi_kelname = text(j, "eipi_kelname");
	n->eipi_keluuid = text(j, "eipi_keluuid");
	n->eipi_tenantname = text(j, "eipi_tenantname");
	n->eipi_props = props_from(nuq::required_member(j, "eipi_props"), &n->eipi_props_count);
	n->eipi_start = text(j, "eipi_start");
	n->eipi_end = text(j, "eipi_end");
	n->eipi_range = text(j, "eipi_range");
	n->eipi_ipvers = nuq::required_integer(j, "eipi_ipvers") == EIPV_IPV6 ? EIPV_IPV6 : EIPV_IPV4;
	return n.release();
}

kelcntl_KELInfo *kel_from(const json &j)
{
	auto k = building<kelcntl_KELInfo, kelcntl_KELInfo_free>();
	k->ekeli_name = text(j, "ekeli_name");
	k->ekeli_uuid = text(j, "ekeli_uuid");
	k->ekeli_tenantname = text(j, "ekeli_tenantname");
	k->ekeli_props = props_from(nuq::required_member(j, "ekeli_props"), &k->ekeli_props_count);
	k->ekeli_status = nuq::required_integer(j, "ekeli_status") == EKELS_BUSY ? EKELS_BUSY : EKELS_IDLE;
	k->ekeli_vports = kelcntl::wire::vports_from(nuq::required_member(j, "ekeli_vports"), &k->ekeli_vports_count);
	k->ekeli_ipnets = array_from<kelcntl_IPnetInfo, kelcntl_IPnetInfo_free>(nuq::required_member(j, "ekeli_ipnets"),
	    &k->ekeli_ipnets_count, ipnet_from);
	return k.release();
}

}  // namespace

namespace kelcntl::wire {

kelcntl_KELError *error_from(const json &j)
{
	auto e = building<kelcntl_KELError, kelcntl_KELError_free>();
	e->ekele_err = static_cast<int>(nuq::required_integer(j, "ekele_err"));
	e->ekele_errmsg = text(j, "ekele_errmsg");
	return e.release();
}

kelcntl_VPortInfo *vport_from(const json &j)
{
	auto v = building<kelcntl_VPortInfo, kelcntl_VPortInfo_free>();
	v->evpi_name = text(j, "evpi_name");
	v->evpi_uuid = text(j, "evpi_uuid");
	v->evpi_kelname = text(j, "evpi_kelname");
	v->evpi_keluuid = text(j, "evpi_keluuid");
	v->evpi_tenantname = text(j, "evpi_tenantname");
	v->evpi_status = nuq::required_integer(j, "evpi_status") == EVPS_USED ? EVPS_USED : EVPS_FREE;
	v->evpi_vnicname = text(j, "evpi_vnicname");
	v->evpi_props = props_from(nuq::required_member(j, "evpi_props"), &v->evpi_props_count);
	v->evpi_hostname = text(j, "evpi_hostname");
	return v.release();
}

kelcntl_VPortInfo **vports_from(const json &items, int *count)
{
	return array_from<kelcntl_VPortInfo, kelcntl_VPortInfo_free>(items, count, vport_from);
}

kelcntl_KELImplInfo *implinfo_from(const json &j)
{
	auto i = building<kelcntl_KELImplInfo, kelcntl_KELImplInfo_free>();
	i->ekelii_kelinfo = kel_from(nuq::required_member(j, "ekelii_kelinfo"));
	i->ekelii_uplink_port = text(j, "ekelii_uplink_port");
	i->ekelii_vxlan_localaddr = text(j, "ekelii_vxlan_localaddr");
	i->ekelii_vxlan_mgroup = text(j, "ekelii_vxlan_mgroup");
	i->ekelii_vxlan_ipvers = text(j, "ekelii_vxlan_ipvers");
	return i.release();
}

}  // namespace kelcntl::wire

extern "C" {

void kelcntl_PropertyNV_free(kelcntl_PropertyNV *nv) noexcept
{
	if (nv == nullptr)
		return;
	std::free(nv->epnv_name);
	std::free(nv->epnv_value);
	std::free(nv);
}

void kelcntl_KELError_free(kelcntl_KELError *err) noexcept
{
	if (err == nullptr)
		return;
	std::free(err->ekele_errmsg);
	std::free(err);
}

void kelcntl_VPortInfo_free(kelcntl_VPortInfo *v) noexcept
{
	if (v == nullptr)
		return;
	for (char *s : {v->evpi_name, v->evpi_uuid, v->evpi_kelname, v->evpi_keluuid, v->evpi_tenantname,
	         v->evpi_vnicname, v->evpi_hostname})
		std::free(s);
	free_array<kelcntl_PropertyNV, kelcntl_PropertyNV_free>(v->evpi_props, v->evpi_props_count);
	std::free(v);
}

void kelcntl_VPortInfo_array_free(kelcntl_VPortInfo **array, int count) noexcept
{
	free_array<kelcntl_VPortInfo, kelcntl_VPortInfo_free>(array, count);
}

void kelcntl_IPnetInfo_free(kelcntl_IPnetInfo *n) noexcept
{
	if (n == nullptr)
		return;
	for (char *s : {n->eipi_name, n->eipi_uuid, n->eipi_kelname, n->eipi_keluuid, n->eipi_tenantname, n->eipi_start,
	         n->eipi_end, n->eipi_range})
		std::free(s);
	free_array<kelcntl_PropertyNV, kelcntl_PropertyNV_free>(n->eipi_props, n->eipi_props_count);
	std::free(n);
}

void kelcntl_KELInfo_free(kelcntl_KELInfo *k) noexcept
{
	if (k == nullptr)
		return;
	for (char *s : {k->ekeli_name, k->ekeli_uuid, k->ekeli_tenantname})
		std::free(s);
	free_array<kelcntl_PropertyNV, kelcntl_PropertyNV_free>(k->ekeli_props, k->ekeli_props_count);
	free_array<kelcntl_VPortInfo, kelcntl_VPortInfo_free>(k->ekeli_vports, k->ekeli_vports_count);
	free_array<kelcntl_IPnetInfo, kelcntl_IPnetInfo_free>(k->ekeli_ipnets, k->ekeli_ipnets_count);
	std::free(k);
}

void kelcntl_KELImplInfo_free(kelcntl_KELImplInfo *info) noexcept
{
	if (info == nullptr)
		return;
	kelcntl_KELInfo_free(info->ekelii_kelinfo);
	for (char *s : {info->ekelii_uplink_port, info->ekelii_vxlan_localaddr, info->ekelii_vxlan_mgroup,
	         info->ekelii_vxlan_ipvers})
		std::free(s);
	std::free(info);
}

}  // extern "C"
