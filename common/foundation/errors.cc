// Error messages: the reason table and the composition of a code's text.
#include <libintl.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "fenu.h"
#include "nuq_errors.h"
#include "vur.h"

extern "C" const char *const kel_errlist[KEL_NUM_REASONS] = {
    /*  0 */ "kel operation succeeded",
    /*  1 */ "kel operation failed",
    /*  2 */ "continue with operation",
    /*  3 */ "insufficient user authorization",
    /*  4 */ "IP address in use",
    /*  5 */ "ipnet in use",
    /*  6 */ "MAC address in use",
    /*  7 */ "vport in use",
    /*  8 */ "ip version mismatch between vxlan-addr and vxlan-mgroup",
    /*  9 */ "ip version mismatch between vxlan-ipvers and vxlan-mgroup",
    /* 10 */ "incompatible L2 network type",
    /* 11 */ "ip version mismatch between vxlan-mgroup and vxlan-ipvers or vxlan-addr",
    /* 12 */ "DB version is greater than the library version",
    /* 13 */ "object already exists",
    /* 14 */ "invalid arguments",
    /* 15 */ "invalid controller property specified",
    /* 16 */ "invalid cos",
    /* 17 */ "invalid hostname",
    /* 18 */ "invalid IP address",
    /* 19 */ "invalid ipnet",
    /* 20 */ "IP is not within the range of ipnet",
    /* 21 */ "invalid IP version",
    /* 22 */ "invalid L2 network type",
    /* 23 */ "invalid local address",
    /* 24 */ "invalid vport macaddr",
    /* 25 */ "invalid maxbw",
    /* 26 */ "invalid multicast group address",
    /* 27 */ "invalid name provided for object",
    /* 28 */ "invalid priority",
    /* 29 */ "invalid property specified",
    /* 30 */ "invalid NUQ URI specified",
    /* 31 */ "invalid range",
    /* 32 */ "invalid subnet",
    /* 33 */ "invalid uplink port",
    /* 34 */ "invalid VLAN ID range",
    /* 35 */ "invalid VLAN ID",
    /* 36 */ "invalid VXLAN ID",
    /* 37 */ "error while handling libwexo",
    /* 38 */ "error while handling libfenu",
    /* 39 */ "error looking up hostname",
    /* 40 */ "insufficient buffer space",
    /* 41 */ "kel not found",
    /* 42 */ "ipnet not found",
    /* 43 */ "vport not found",
    /* 44 */ "object not found",
    /* 45 */ "insufficient memory",
    /* 46 */ "range doesn't contain all allocated resource",
    /* 47 */ "insufficient resource",
    /* 48 */ "no available VLAN ID",
    /* 49 */ "no available VXLAN ID",
    /* 50 */ "specified NUQ URI not supported",
    /* 51 */ "operation not supported",
    /* 52 */ "ipnet overlaps with existing ipnet(s)",
    /* 53 */ "cannot add more than one ipnet",
    /* 54 */ "could not set kel property on all vports",
    /* 55 */ "permission denied",
    /* 56 */ "property is read-only",
    /* 57 */ "error while handling NUQ",
    /* 58 */ "failed connecting to KEL controller",
    /* 59 */ "KEL controller failed connecting to a host",
    /* 60 */ "error generating random macaddr",
    /* 61 */ "required arguments not provided",
    /* 62 */ "required uplink port not provided",
    /* 63 */ "error while handling VUR",
    /* 64 */ "error while handling SQL",
    /* 65 */ "system error",
    /* 66 */ "remote host no response",
    /* 67 */ "VLAN ID is not available",
    /* 68 */ "VXLAN ID is not available",
    /* 69 */ "error while handling UUID",
    /* 70 */ "invalid pool range",
    /* 71 */ "range includes exlusive resource",
    /* 72 */ "pool range includes defrouter address",
    /* 73 */ "invalid protection",
    /* 74 */ "provided value range is not a subset of v(x)lan-range",
    /* 75 */ "provided value range overlaps with existing set of ranges",
    /* 76 */
    "provided value range is a subset of the complete range. Ensure to provide the remaining value range on a different uplink-port or vxlan-addr",
    /* 77 */ "you may have to manually update the v(x)lan-range of uplink-port or vxlan-addr",
    /* 78 */ "invalid host URI template specified (should be of the form unix://[username@] or ssh://[username@])",
    /* 79 */ "invalid filter name",
    /* 80 */
    "vlan-range, vxlan-range, and flat are the only attributes allowed to be specified for uplink-port property",
    /* 81 */ "vxlan-range is the only attribute allowed to be specified for vxlan-addr property",
};

namespace {

constexpr const char *kMessageDomain = "QARN_OST_OSLIB";
constexpr const char *kUnknown = "Unknown KEL error";
// What wexo_status2str may write.
constexpr unsigned kWexoStrSize = 1024;

// The facility's text for `status`, or nullptr when `reason` names no facility.
// `scratch` holds texts that have to be built (a decimal number, the datalink text).
const char *facility_text(int reason, int status, char (&scratch)[kWexoStrSize])
{
	const char *text = nullptr;
	switch (reason) {
	case KEL_E_WEXO: text = wexo_status2str(status, scratch); break;
	case KEL_E_FENU: text = fenu_status2str(status); break;
	case KEL_E_NUQ: text = nuq_err_string(status); break;
	case KEL_E_VUR: text = vur_strerror(status); break;
	case KEL_E_SQL: text = sqlite3_errstr(status); break;
	case KEL_E_SYSTEM:
		// strerror_r (GNU form) is used because strerror is not thread-safe.
		text = strerror_r(status, scratch, sizeof(scratch));
		break;
	default: return nullptr;
	}
	if (text == nullptr) {
		std::snprintf(scratch, sizeof(scratch), "%d", status);
		text = scratch;
	}
	return text;
}

}  // namespace

extern "C" const char *kel_errmsg(int code, char *buf, uint_t len) noexcept
{
	const int reason = KEL_ERR_REASON(code);
	const int status = KEL_ERR_STATUS(code);
	char scratch[kWexoStrSize];

	// With no room there is no text to look up; answer the empty text rather than read
	// an unterminated buffer.
	if (buf == nullptr || len == 0)
		return "";
	if (const char *ftext = facility_text(reason, status, scratch))
		std::snprintf(buf, len, "%s: %s", kel_errlist[reason], ftext);
	else if (reason < KEL_NUM_REASONS)
		std::snprintf(buf, len, "%s", kel_errlist[reason]);
	else
		std::snprintf(buf, len, "%s", kUnknown);
	// The composed text, not the table entry, is what the catalogue translates.
	return dgettext(kMessageDomain, buf);
}
