// Adding, removing and resetting ports, and the system ports the library names itself.
#include "vport.h"

#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "allocator.h"
#include "attrset_ptr.h"
#include "audit.h"
#include "c_boundary.h"
#include "filter.h"
#include "host_link.h"
#include "kelnet.h"
#include "names.h"
#include "owners.h"
#include "prop_catalogue.h"
#include "sql.h"
#include "subnet.h"
#include "text.h"

namespace {

using kel::KelPtr;

// Takes `name` out of the set into `out` (cut to `size`), or leaves `fallback` there.
void take(attrset_t *set, const char *name, char *out, size_t size, const char *fallback)
{
	char *value = nullptr;
	if (attrset_lookup_string(set, name, &value) == 0) {
		kel::copy_text(out, value, size);
		(void)attrset_remove(set, name, DATA_TYPE_STRING);
	} else {
		kel::copy_text(out, fallback, size);
	}
}

// The port's MAC that a caller asked for: its text as given, its octets and their
// canonical spelling.
struct GivenMac {
	const char *text;
	uint8_t bytes[6];
	char canonical[18];
};

// A free MAC address: the one given, unless taken, or a random one not in use. Taken
// means the text occurs in some port's properties, or some port has the same address
// however it is spelled.
int pick_mac(kel_dbhandle_t h, const GivenMac *given, char (&mac)[18])
{
	if (given != nullptr) {
		if (kel_db_macaddr_exists(h, given->text) || kel_db_macaddr_value_taken(h, given->bytes))
			return KEL_E_MACADDR_INUSE;
		kel::copy_text(mac, given->canonical, sizeof(mac));
		return KEL_SUCCESS;
	}
	for (;;) {
		uint8_t bytes[6];
		if (kel_macaddr_random(bytes, sizeof(bytes)) != 0)
			return KEL_E_MACADDR_RANDOM;
		_link_ntoa(bytes, mac, 6, 1);
		if (!kel_db_macaddr_exists(h, mac) && !kel_db_macaddr_value_taken(h, bytes))
			return KEL_SUCCESS;
	}
}

// Draws the port's address: the lowest free pool address for "auto", else the one asked
// for. The default router is taken without touching the pools, once.
int draw_address(kel_dbhandle_t h, const kel_ipnet_t *ip, const char *given, char (&addr)[46], bool *drawn)
{
	*drawn = false;
	if (std::strcmp(given, "auto") == 0) {
		int rc = kel_db_get_next_ipaddr(h, ip, addr);
		*drawn = rc == KEL_SUCCESS;
		return rc;
	}
	if (!kel_ipnet_contains_ip(ip, given))
		return KEL_E_IP_NOT_IN_IPNET;
	kel::copy_text(addr, given, sizeof(addr));
	int rc = kel_db_get_this_ipaddr(h, ip, given);
	if (rc == KEL_SUCCESS) {
		*drawn = true;
		return rc;
	}
	if (rc != KEL_E_NORESOURCE)
		return rc;
	if (!kel_is_defrouter(given, ip))
		return KEL_E_IPADDR_INUSE;
	const std::string pattern = "%ipaddr=" + std::string(given) + "/" + std::to_string(ip->ei_prefixlen) + "%";
	return kel_db_value_exists(h, nullptr, "LIKE", "vport_tbl", 1, "vport_props", DATA_TYPE_STRING, pattern.c_str())
	    ? KEL_E_IPADDR_INUSE
	    : KEL_SUCCESS;
}

// What a caller asks of a new port: its properties, and the address, MAC and UUID it
// gives ("auto" for the first two when it leaves them to the fabric).
struct PortRequest {
	kel::AttrSetPtr set;
	char addr[46], mac_text[18], uuid[KEL_UUID_TEXT_LEN];
	GivenMac mac{nullptr, {}, {}};
	bool mac_given = false;
};

// Step 1, before the lock: the caller's text read and checked.
int read_request(const char *props, PortRequest *req)
{
	int rc = kel::read_props(props, &req->set);
	if (rc != KEL_SUCCESS || (rc = kel_check_prop(req->set.get(), KEL_PROPTYPE_VPORT)) != KEL_SUCCESS)
		return rc;
	take(req->set.get(), "ipaddr", req->addr, sizeof(req->addr), "auto");
	take(req->set.get(), "macaddr", req->mac_text, sizeof(req->mac_text), "auto");
	kel_take_uuid(req->set.get(), req->uuid);
	// A port's MAC is one Ethernet unicast address, kept in one spelling.
	req->mac.text = req->mac_text;
	req->mac_given = std::strcmp(req->mac_text, "auto") != 0;
	return req->mac_given ? kel_parse_port_mac(req->mac_text, req->mac.bytes, req->mac.canonical) : KEL_SUCCESS;
}

// Step 2, under the lock: the switch exists and the name is free (a port given no name
// takes one from its UUID, into `derived`).
int check_name(kel_dbhandle_t h, const char *tenant, const char *kel, const PortRequest &req, const char **name,
    char (&derived)[KEL_UUID_TEXT_LEN])
{
	if (!kel_db_kel_exists(h, tenant, kel))
		return KEL_E_KEL_NOTFOUND;
	if (*name == nullptr) {
		kel_uuidstr2name(req.uuid, derived, sizeof(derived));
		*name = derived;
		return KEL_SUCCESS;
	}
	return kel_db_vport_exists(h, tenant, kel, *name) ? KEL_E_EXISTS : KEL_SUCCESS;
}

// Step 4, in the transaction after the address draw: the MAC picked and the row written.
int insert_port(kel_dbhandle_t h, const kel_ipnet_t *ip, PortRequest *req, const char *addr, const char *name)
{
	const std::string ipaddr = std::string(addr) + "/" + std::to_string(ip->ei_prefixlen);
	if (attrset_add_string(req->set.get(), "ipaddr", ipaddr.c_str()) != 0)
		return KEL_E_NOMEM;
	char mac[18];
	int rc = pick_mac(h, req->mac_given ? &req->mac : nullptr, mac);
	if (rc != KEL_SUCCESS)
		return rc;
	if (attrset_add_string(req->set.get(), "macaddr", mac) != 0)
		return KEL_E_NOMEM;
	kel::Text text;
	if ((rc = kel::props_text(req->set.get(), &text)) != KEL_SUCCESS)
		return rc;
	// The network names its switch: reading the switch itself would read all its ports.
	return kel::exec(h,
	    "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, "
	    "vport_hostname) VALUES(?, ?, ?, ?, ?)",
	    {req->uuid, kel::uuid_text(ip->ei_keluuid), name, text.get(), ""});
}

int add_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    kel_vport_t **vportp, uint32_t flags)
{
	if (name != nullptr && !kel::valid_new_name(name, flags))
		return KEL_E_INVALID_NAME;
	PortRequest req;
	int rc = read_request(props, &req);
	if (rc != KEL_SUCCESS)
		return rc;
	// The address is drawn in the transaction that inserts the port: a crash at any
	// instant keeps both or neither. The checks read in it too, so the store is opened
	// for reading once, not once per check.
	kel::WriteScope write(h);
	char derived[KEL_UUID_TEXT_LEN];
	if ((rc = write.begin()) != KEL_SUCCESS ||
	    (rc = check_name(h, tenant, kel, req, &name, derived)) != KEL_SUCCESS)
		return rc;
	// Step 3: the switch's network, whose pool the address comes from.
	char filter[KEL_FILTER_LEN];
	kel::RecordList<kel_ipnet_t> nets;
	if ((rc = kel::names_filter(filter, tenant, kel)) != KEL_SUCCESS ||
	    (rc = nets.read([&](list_t *l) { return kel_db_get_filtered_ipnetlist(h, filter, l, 0); })) != KEL_SUCCESS)
		return rc;
	const kel_ipnet_t *ip = nets.front();
	char addr[46];
	bool drawn = false;
	// The hold gives the address back for a failure inside a caller's transaction, where
	// this one's rollback is not a rollback.
	kel::Hold address([&] { (void)kel_db_free_ipaddr(h, ip->ei_uuid, ip->ei_af, addr); });
	rc = draw_address(h, ip, req.addr, addr, &drawn);
	if (drawn)
		address.arm();
	if (rc == KEL_SUCCESS)
		rc = insert_port(h, ip, &req, addr, name);
	// Step 5: the record the caller asked for is read before the commit, so a failure to
	// read it fails the whole add, which then leaves nothing behind. The port alone, with
	// its switch's names: one statement, where the switch's record would take two.
	kel::RecordList<kel_vport_t> made;
	if (rc == KEL_SUCCESS && vportp != nullptr &&
	    (rc = kel::names_filter(filter, tenant, kel, "vport", name)) == KEL_SUCCESS)
		rc = made.read([&](list_t *l) { return kel_db_get_filtered_vportlist(h, filter, l, 0); });
	if (rc == KEL_SUCCESS && (rc = write.commit()) == KEL_SUCCESS) {
		address.keep();
		if (vportp != nullptr)
			*vportp = made.take(made.front());
	}
	return rc;
}

// NULL, or exactly "force=..."; true in *force for "force=yes".
int parse_force(const char *props, bool *force)
{
	*force = false;
	if (props == nullptr)
		return KEL_SUCCESS;
	kel::AttrSetPtr set;
	if (int rc = kel::read_props(props, &set, {.empty = KEL_E_INVALID_PROP}); rc != KEL_SUCCESS)
		return rc;
	char *value = nullptr;
	if (kel_attrset_count(set.get()) != 1 || attrset_lookup_string(set.get(), "force", &value) != 0)
		return KEL_E_INVALID_PROP;
	*force = std::strcmp(value, "yes") == 0;
	return KEL_SUCCESS;
}

int remove_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    uint32_t flags)
{
	if (!kel_valid_name(name))
		return KEL_E_INVALID_NAME;
	if (kel_is_system_vport(name) && !(flags & KEL_SYSTEM_VPORT_OK))
		return KEL_E_PERM;
	kel::WriteScope write(h);
	int rc = write.locked();
	if (rc != KEL_SUCCESS)
		return rc;
	kel_t *raw = nullptr;
	if (kel_db_get_kelvport(h, tenant, kel, name, &raw) != KEL_SUCCESS)
		return KEL_E_VPORT_NOTFOUND;
	const KelPtr k(raw);
	auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports));
	bool force = false;
	rc = parse_force(props, &force);
	if (rc == KEL_SUCCESS && vp->evp_status == VPORT_STATUS_USED && !force)
		rc = KEL_E_VPORT_INUSE;
	if (rc == KEL_SUCCESS) {
		char *ipaddr = nullptr;
		std::string addr;
		if (attrset_lookup_string(vp->evp_props, "ipaddr", &ipaddr) == 0)
			addr = std::string(ipaddr).substr(0, std::string(ipaddr).find('/'));
		kel::RecordList<kel_ipnet_t> nets;
		char filter[KEL_FILTER_LEN];
		char vpuuid[KEL_UUID_TEXT_LEN];
		uuid_unparse_lower(vp->evp_uuid, vpuuid);
		rc = write.begin();
		if (rc == KEL_SUCCESS && !addr.empty() &&
		    (rc = kel::names_filter(filter, tenant, kel)) == KEL_SUCCESS &&
		    (rc = nets.read([&](list_t *l) { return kel_db_get_filtered_ipnetlist(h, filter, l, 0); })) ==
		        KEL_SUCCESS) {
			// The address goes back to the pools in the same transaction as the delete.
			for (kel_ipnet_t *ip : nets)
				if (rc == KEL_SUCCESS && !kel_is_defrouter(addr.c_str(), ip))
					rc = kel_db_free_ipaddr(h, ip->ei_uuid, ip->ei_af, addr.c_str());
		}
		if (rc == KEL_SUCCESS)
			rc = kel::exec(h, "DELETE FROM vport_tbl WHERE vport_uuid = ?", {vpuuid});
		if (rc == KEL_SUCCESS)
			rc = write.commit();
	}
	return rc;
}

// Whether the port's VNIC still exists on its host; false when the host cannot be
// reached or has no such datalink.
bool vnic_still_there(kel_dbhandle_t h, const kel_vport_t *vp)
{
	kel::HostLink link;
	return link.open(h, vp->evp_hostname, vp->evp_vnicname) == KEL_SUCCESS;
}

int reset_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props)
{
	if (!kel_valid_name(name))
		return KEL_E_INVALID_NAME;
	KelPtr k;
	int rc;
	{
		kel::StoreLock lock(h);
		if ((rc = lock.status()) != KEL_SUCCESS)
			return rc;
		kel_t *raw = nullptr;
		if ((rc = kel_db_get_kelvport(h, tenant, kel, name, &raw)) != KEL_SUCCESS)
			return rc;
		k.reset(raw);
	}
	auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports));
	bool force = false;
	if (vp->evp_status == VPORT_STATUS_FREE)
		rc = KEL_SUCCESS;
	else if ((rc = parse_force(props, &force)) == KEL_SUCCESS) {
		// The lock is not held while the host is asked.
		if (!force && vnic_still_there(h, vp)) {
			rc = KEL_E_VPORT_INUSE;
		} else {
			kel::WriteScope write(h);
			if ((rc = write.begin()) == KEL_SUCCESS &&
			    (rc = kel_db_assign_vport_common(h, vp, "", "", nullptr, VPORT_STATUS_FREE)) ==
			        KEL_SUCCESS &&
			    kel_is_system_vport(name))
				rc = kel_db_remove_system_vport(h, tenant, kel, name);
			if (rc == KEL_SUCCESS)
				rc = write.commit();
		}
	}
	return rc;
}

}  // namespace

int kel_db_assign_vport_common(kel_dbhandle_t h, kel_vport_t *vport, const char *vnicname, const char *hostname,
    attrset_t *props, vport_status_t status)
{
	if (vport->evp_props == nullptr && attrset_create(&vport->evp_props, ATTRSET_UNIQUE_NAME) != 0)
		return KEL_E_NOMEM;
	// Who holds the port, kept while it is bound: a VM's ID (which lets it migrate) and a
	// container's.
	for (const char *name : {"vmid", "containerid"}) {
		char *value = nullptr;
		(void)attrset_remove(vport->evp_props, name, DATA_TYPE_STRING);
		if (status != VPORT_STATUS_FREE && props != nullptr &&
		    attrset_lookup_string(props, name, &value) == 0 &&
		    attrset_add_string(vport->evp_props, name, value) != 0)
			return KEL_E_NOMEM;
	}
	kel::Text text;
	int rc = kel::props_text(vport->evp_props, &text);
	if (rc != KEL_SUCCESS)
		return rc;
	char vpuuid[KEL_UUID_TEXT_LEN], keluuid[KEL_UUID_TEXT_LEN];
	uuid_unparse_lower(vport->evp_uuid, vpuuid);
	uuid_unparse_lower(vport->evp_keluuid, keluuid);
	rc = kel::exec(h,
	    "UPDATE vport_tbl set vport_status = ?, vport_vnicname = ?, vport_hostname = ?, "
	    "vport_props = ? WHERE vport_uuid = ? AND vport_keluuid = ?",
	    {static_cast<int>(status), vnicname, hostname, text.get(), vpuuid, keluuid});
	return rc;
}

extern "C" {

boolean_t kel_db_vport_exists(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport) noexcept
{
	return kel::c_boundary_as<boolean_t>(B_FALSE, B_FALSE, [&] {
		if (h == nullptr || kel == nullptr || vport == nullptr)
			return B_FALSE;
		boolean_t kel_uuid = B_FALSE, vport_uuid = B_FALSE;
		(void)kel_parse_name(kel, &kel_uuid);
		(void)kel_parse_name(vport, &vport_uuid);
		kel::StoreLock lock(h);
		if (lock.status() != KEL_SUCCESS)
			return B_FALSE;
		return kel_db_value_exists(h, "AND", "=", "kel_vport_view", 3, "kel_tenant_name", DATA_TYPE_STRING,
		    tenant, kel_uuid ? "kel_uuid" : "kel_name", DATA_TYPE_STRING, kel,
		    vport_uuid ? "vport_uuid" : "vport_name", DATA_TYPE_STRING, vport);
	});
}

int kel_db_add_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    kel_vport_t **vportp, uint32_t flags) noexcept
{
	if (vportp != nullptr)
		*vportp = nullptr;
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant, kel}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged(
	    [&] { return kel::audit::on("add-vport", tenant, kel::audit::member(kel, name), props); },
	    [&] { return add_vport(h, tenant, kel, name, props, vportp, flags); });
}

int kel_db_remove_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    uint32_t flags) noexcept
{
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant, kel}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged(
	    [&] { return kel::audit::on("remove-vport", tenant, kel::audit::member(kel, name), props); },
	    [&] { return remove_vport(h, tenant, kel, name, props, flags); });
}

int kel_db_reset_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    uint32_t) noexcept
{
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant, kel}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged(
	    [&] { return kel::audit::on("reset-vport", tenant, kel::audit::member(kel, name), props); },
	    [&] { return reset_vport(h, tenant, kel, name, props); });
}

int kel_db_add_system_vport(kel_dbhandle_t h, const char *tenant, const char *kel, char *name) noexcept
{
	return kel::c_boundary([&] {
		if (h == nullptr || name == nullptr)
			return KEL_E_INVALID_ARGS;
		// The number and the port commit together (inside a binding, with the binding).
		kel::WriteScope write(h);
		int rc = write.begin();
		if (rc == KEL_SUCCESS)
			rc = kel_db_get_next_sysvportname(h, tenant, kel, name, KEL_NAME_LEN);
		if (rc != KEL_SUCCESS)
			return rc;
		rc = kel_db_add_vport(h, tenant, kel, name, nullptr, nullptr, KEL_NAME_DASH_OK);
		if (rc != KEL_SUCCESS)
			(void)kel_db_free_sysvportname(h, tenant, kel, name);
		return rc != KEL_SUCCESS ? rc : write.commit();
	});
}

int kel_db_remove_system_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name) noexcept
{
	return kel::c_boundary([&] {
		if (h == nullptr || name == nullptr)
			return KEL_E_INVALID_ARGS;
		// The port goes and its number comes back in one transaction.
		kel::WriteScope write(h);
		int rc = write.begin();
		if (rc == KEL_SUCCESS &&
		    (rc = kel_db_remove_vport(h, tenant, kel, name, nullptr, KEL_SYSTEM_VPORT_OK)) == KEL_SUCCESS &&
		    (rc = kel_db_free_sysvportname(h, tenant, kel, name)) == KEL_SUCCESS)
			rc = write.commit();
		return rc;
	});
}

}  // extern "C"
