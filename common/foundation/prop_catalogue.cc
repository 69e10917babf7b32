#include "prop_catalogue.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "bandwidth.h"
#include "kelnet.h"
#include "names.h"
#include "number.h"
#include "subnet.h"

namespace {

// One information function's three texts.
struct PropInfo {
	const char *perm;
	const char *defvalue;
	const char *possible;
};

int copy_info(const PropInfo &info, char *buf, size_t size, kel_pinfo_type_t kind)
{
	const char *text;
	switch (kind) {
	case KEL_PROPINFO_PERM: text = info.perm; break;
	case KEL_PROPINFO_DEFAULT: text = info.defvalue; break;
	case KEL_PROPINFO_POSSIBLE: text = info.possible; break;
	default: return KEL_E_INVALID_ARGS;
	}
	const size_t len = std::strlen(text);
	if (buf == nullptr || size < len + 1)
		return KEL_E_NOSPACE;
	std::memcpy(buf, text, len + 1);
	return KEL_SUCCESS;
}

template <const PropInfo &Info>
int pinfo(char *buf, size_t size, kel_pinfo_type_t kind)
{
	return copy_info(Info, buf, size, kind);
}

constexpr PropInfo kProtection = {"rw", "mac-nospoof,ip-nospoof",
    "mac-nospoof,restricted,ip-nospoof,dhcp-nospoof,none"};
constexpr PropInfo kCos = {"rw", "0", "0-7"};
constexpr PropInfo kMaxbw = {"rw", "", ""};
constexpr PropInfo kPriority = {"rw", "medium", "low,medium,high"};
constexpr PropInfo kPool = {"rw", "", ""};
constexpr PropInfo kGeneric = {"r-", "", ""};
constexpr PropInfo kExtended = {"rw", "", ""};

kel_pinfofn_t *const kel_pinfo_protection = pinfo<kProtection>;
kel_pinfofn_t *const kel_pinfo_cos = pinfo<kCos>;
kel_pinfofn_t *const kel_pinfo_maxbw = pinfo<kMaxbw>;
kel_pinfofn_t *const kel_pinfo_priority = pinfo<kPriority>;
kel_pinfofn_t *const kel_pinfo_pool = pinfo<kPool>;
kel_pinfofn_t *const kel_pinfo_generic = pinfo<kGeneric>;
kel_pinfofn_t *const kel_pinfo_extended_prop = pinfo<kExtended>;

constexpr kel_proptype_t types(int bits)
{
	return static_cast<kel_proptype_t>(bits);
}

constexpr int K = KEL_PROPTYPE_KEL, V = KEL_PROPTYPE_VPORT, I = KEL_PROPTYPE_IPNET;

constexpr const char *kProtectionWords[] = {"mac-nospoof", "restricted", "ip-nospoof", "dhcp-nospoof", "none"};
constexpr size_t kProtectionNone = 4;

}  // namespace

const kel_prop_desc_t kel_prop_table[] = {
    {"protection", EPD_DLPROP, types(K | V), kel_check_protection, kel_pinfo_protection},
    {"cos", EPD_DLPROP, types(V), kel_check_cos, kel_pinfo_cos},
    {"maxbw", EPD_DLPROP, types(K | V), kel_check_maxbw, kel_pinfo_maxbw},
    {"priority", EPD_DLPROP, types(K | V), kel_check_priority, kel_pinfo_priority},
    {"ipaddr", 0, types(V), kel_check_ipaddr, kel_pinfo_generic},
    {"macaddr", 0, types(V), kel_check_macaddr, kel_pinfo_generic},
    {"vmid", EPD_INVISIBLE, types(V), nullptr, kel_pinfo_generic},
    {"l2-type", 0, types(K), kel_check_l2type, kel_pinfo_generic},
    {"vlanid", 0, types(K), kel_check_vlanid, kel_pinfo_generic},
    {"vni", 0, types(K), kel_check_vni, kel_pinfo_generic},
    {"kel", 0, types(V | I), kel_check_name, kel_pinfo_generic},
    {"subnet", 0, types(I), kel_check_subnet, kel_pinfo_generic},
    {"defrouter", 0, types(I), kel_check_ipaddr, kel_pinfo_generic},
    {"pool", 0, types(I), nullptr, kel_pinfo_pool},
    {"tenant", 0, types(K | V | I), nullptr, kel_pinfo_generic},
    {"uuid", 0, types(K | V | I), kel_check_uuid, kel_pinfo_generic},
    {nullptr, 0, types(0), nullptr, nullptr},
};

const kel_prop_desc_t kel_extended_prop = {nullptr, EPD_INVISIBLE, types(K | V | I), kel_check_extended_prop,
    kel_pinfo_extended_prop};

kel_prop_desc_t kel_get_prop_entry(const char *name, kel_proptype_t wanted)
{
	for (const kel_prop_desc_t *row = kel_prop_table; name && row->ep_pname; row++)
		if ((row->ep_ptype & wanted) != 0 && strcasecmp(row->ep_pname, name) == 0)
			return *row;
	if (name != nullptr && std::strchr(name, ':') != nullptr) {
		kel_prop_desc_t ext = kel_extended_prop;
		ext.ep_pname = name;
		return ext;
	}
	return kel_prop_desc_t{};
}

int kel_check_prop(attrset_t *props, kel_proptype_t type)
{
	for (attrset_entry_t *e = attrset_next_entry(props, nullptr); e != nullptr; e = attrset_next_entry(props, e)) {
		const kel_prop_desc_t desc = kel_get_prop_entry(attrset_entry_name(e), type);
		char *value = nullptr;
		if (desc.ep_pname == nullptr || attrset_entry_value_string(e, &value) != 0)
			return KEL_E_INVALID_PROP;
		if (desc.ep_pcheckfn != nullptr)
			if (int rc = desc.ep_pcheckfn(value, 0); rc != KEL_SUCCESS)
				return rc;
	}
	return KEL_SUCCESS;
}

boolean_t kel_check_propname(attrset_t *names, kel_proptype_t wanted)
{
	for (attrset_entry_t *e = attrset_next_entry(names, nullptr); e != nullptr; e = attrset_next_entry(names, e))
		if (kel_get_prop_entry(attrset_entry_name(e), wanted).ep_pname == nullptr)
			return B_FALSE;
	return B_TRUE;
}

int kel_get_prop_info(const char *name, char *buf, size_t size, kel_pinfo_type_t kind)
{
	const kel_prop_desc_t desc = kel_get_prop_entry(name, KEL_PROPTYPE_ALL);
	if (desc.ep_pname == nullptr)
		return KEL_E_INVALID_PROP;
	return desc.ep_pinfofn(buf, size, kind);
}

int kel_get_prop_perm(const char *name, char *buf, size_t size)
{
	return kel_get_prop_info(name, buf, size, KEL_PROPINFO_PERM);
}

int kel_get_prop_default(const char *name, char *buf, size_t size)
{
	return kel_get_prop_info(name, buf, size, KEL_PROPINFO_DEFAULT);
}

int kel_check_protection(const char *value, uint32_t)
{
	if (*value == '\0')
		return KEL_SUCCESS;
	std::string copy(value);
	bool seen[std::size(kProtectionWords)] = {};
	int count = 0;
	char *save = nullptr;
	for (char *word = strtok_r(copy.data(), ",", &save); word != nullptr; word = strtok_r(nullptr, ",", &save)) {
		size_t i = 0;
		while (i < std::size(kProtectionWords) && strcasecmp(word, kProtectionWords[i]) != 0)
			i++;
		if (i == std::size(kProtectionWords) || seen[i])
			return KEL_E_INVALID_PROTECTION;
		seen[i] = true;
		count++;
	}
	return seen[kProtectionNone] && count >= 2 ? KEL_E_INVALID_PROTECTION : KEL_SUCCESS;
}

int kel_check_cos(const char *value, uint32_t)
{
	long cos;
	if (*value == '\0')
		return KEL_SUCCESS;
	return kel::parse_long(value, &cos) && cos >= 0 && cos <= 7 ? KEL_SUCCESS : KEL_E_INVALID_COS;
}

int kel_check_maxbw(const char *value, uint32_t)
{
	return *value == '\0' || wexo_str2bw(value, nullptr) ? KEL_SUCCESS : KEL_E_INVALID_MAXBW;
}

int kel_check_priority(const char *value, uint32_t)
{
	for (const char *word : {"", "high", "medium", "low"})
		if (strcasecmp(value, word) == 0)
			return KEL_SUCCESS;
	return KEL_E_INVALID_PRIORITY;
}

int kel_check_ipaddr(const char *value, uint32_t)
{
	unsigned char addr[sizeof(struct in6_addr)];
	return inet_pton(AF_INET, value, addr) == 1 || inet_pton(AF_INET6, value, addr) == 1 ? KEL_SUCCESS
	                                                                                     : KEL_E_INVALID_IPADDR;
}

int kel_check_subnet(const char *value, uint32_t)
{
	kel_ipnet_t scratch;
	return kel_parse_ipnet(value, &scratch) == KEL_SUCCESS ? KEL_SUCCESS : KEL_E_INVALID_SUBNET;
}

int kel_check_macaddr(const char *value, uint32_t)
{
	int len;
	unsigned char *bytes = _link_aton(value, &len);
	std::free(bytes);
	return bytes != nullptr ? KEL_SUCCESS : KEL_E_INVALID_MACADDR;
}

int kel_check_l2type(const char *value, uint32_t)
{
	for (const char *type : {"vlan", "vxlan", "flat"})
		if (std::strcmp(value, type) == 0)
			return KEL_SUCCESS;
	return KEL_E_INVALID_L2TYPE;
}

// The range is checked on the number as read, before any narrowing to int, so that
// "4294967297" is not taken for 1.
int kel_check_vlanid(const char *value, uint32_t)
{
	long id;
	return kel::parse_long(value, &id) && id >= 1 && id <= 4094 ? KEL_SUCCESS : KEL_E_INVALID_VLANID;
}

int kel_check_vni(const char *value, uint32_t)
{
	long vni;
	return kel::parse_long(value, &vni) && vni >= 0 && vni <= 16777215 ? KEL_SUCCESS : KEL_E_INVALID_VNI;
}

int kel_check_name(const char *value, uint32_t)
{
	return kel_valid_name(value) ? KEL_SUCCESS : KEL_E_INVALID_NAME;
}

int kel_check_uuid(const char *value, uint32_t)
{
	return kel_valid_uuidstr(value) ? KEL_SUCCESS : KEL_E_UUID;
}

int kel_check_extended_prop(const char *, uint32_t)
{
	return KEL_SUCCESS;
}
