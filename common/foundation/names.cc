// Names, UUID texts, compound names and address texts.
#include "names.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <uuid/uuid.h>

#include <cstring>

#include "kel_assert.h"
#include "kelnet.h"
#include "text.h"

namespace {

constexpr size_t kCompoundLen = 256;  // kel name, '/', member name, terminator
constexpr size_t kAddressLen = 50;    // an address text, a prefix length, terminator
constexpr const char kSystemVportPrefix[] = "sys-vport";

bool name_char(char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
	    c == '.';
}

// At most 49 characters of an address text, cut at the first '/'.
void address_part(const char *text, char (&buf)[kAddressLen])
{
	kel::copy_text(buf, text, sizeof(buf));
	if (char *slash = std::strchr(buf, '/'))
		*slash = '\0';
}

void copy_name(char *out, const char *name)
{
	if (out == nullptr)
		return;
	kel::copy_text(out, name, kKelNameLen);
}

}  // namespace

boolean_t kel_valid_uuidstr(const char *text)
{
	uuid_t uu;
	if (text == nullptr || std::strlen(text) >= KEL_UUID_TEXT_LEN)
		return B_FALSE;
	return uuid_parse(text, uu) == 0 ? B_TRUE : B_FALSE;
}

// The first character is held to the same set as the others: names must stand in
// property strings, filters and compound names, where ',', '=', '/' and blanks separate.
boolean_t kel_valid_hrname(const char *text)
{
	const size_t len = std::strlen(text);
	if (len >= kKelNameLen)
		return B_FALSE;
	for (size_t i = 0; i < len; i++)
		if (!name_char(text[i]))
			return B_FALSE;
	return B_TRUE;
}

boolean_t kel_parse_name_common(const char *text, char *kelname, char *member)
{
	if (kelname != nullptr)
		*kelname = '\0';
	if (member != nullptr)
		*member = '\0';
	if (text == nullptr || std::strlen(text) >= kCompoundLen)
		return B_FALSE;
	char copy[kCompoundLen];
	std::strcpy(copy, text);

	char *memberpart = copy;
	if (char *slash = std::strchr(copy, '/')) {
		*slash = '\0';
		if (!kel_valid_name(copy))
			return B_FALSE;
		copy_name(kelname, copy);
		memberpart = slash + 1;
	}
	if (*memberpart == '\0')
		return B_TRUE;
	if (!kel_valid_name(memberpart))
		return B_FALSE;
	copy_name(member, memberpart);
	return B_TRUE;
}

void kel_uuidstr2name(const char *uuidtext, char *buf, uint_t size)
{
	KEL_ASSERT(kel::kAreaUtil, size >= UUID_PRINTABLE_STRING_LENGTH - 4);
	std::memset(buf, 0, size);
	size_t n = 0;
	for (size_t i = 0; uuidtext[i] != '\0' && i < KEL_UUID_TEXT_LEN - 1; i++)
		if (uuidtext[i] != '-')
			buf[n++] = uuidtext[i];
}

void kel_take_uuid(attrset_t *props, char (&text)[KEL_UUID_TEXT_LEN])
{
	char *given = nullptr;
	if (attrset_lookup_string(props, "uuid", &given) == 0) {
		kel::copy_text(text, given, KEL_UUID_TEXT_LEN);
		(void)attrset_remove(props, "uuid", DATA_TYPE_STRING);
		return;
	}
	uuid_t uu;
	uuid_generate_time(uu);
	uuid_unparse_lower(uu, text);
}

extern "C" {

boolean_t kel_valid_name(const char *text) noexcept
{
	if (text == nullptr || *text == '\0')
		return B_FALSE;
	return kel_valid_uuidstr(text) || kel_valid_hrname(text) ? B_TRUE : B_FALSE;
}

int kel_parse_name(const char *text, boolean_t *is_uuid) noexcept
{
	if (is_uuid != nullptr)
		*is_uuid = B_FALSE;
	if (text == nullptr || *text == '\0')
		return KEL_E_INVALID_NAME;
	if (kel_valid_uuidstr(text)) {
		if (is_uuid != nullptr)
			*is_uuid = B_TRUE;
		return KEL_SUCCESS;
	}
	return kel_valid_hrname(text) ? KEL_SUCCESS : KEL_E_INVALID_NAME;
}

boolean_t kel_parse_kelvportname(const char *text, char *kelname, char *vportname) noexcept
{
	return kel_parse_name_common(text, kelname, vportname);
}

boolean_t kel_parse_kelipnetname(const char *text, char *kelname, char *ipnetname) noexcept
{
	return kel_parse_name_common(text, kelname, ipnetname);
}

boolean_t kel_is_system_vport(const char *vportname) noexcept
{
	KEL_ASSERT(kel::kAreaUtil, vportname != NULL);
	return std::strncmp(vportname, kSystemVportPrefix, sizeof(kSystemVportPrefix) - 1) == 0 ? B_TRUE : B_FALSE;
}

// A text that is not an IPv4 or IPv6 address is not the unspecified address: the answer
// is B_FALSE rather than a stop, since a bad stored value must not end the caller.
boolean_t kel_address_unspecified(const char *text) noexcept
{
	if (text == nullptr)
		return B_FALSE;
	char buf[kAddressLen];
	address_part(text, buf);
	struct sockaddr_storage ss {};
	auto *sin = reinterpret_cast<struct sockaddr_in *>(&ss);
	auto *sin6 = reinterpret_cast<struct sockaddr_in6 *>(&ss);
	if (inet_pton(AF_INET, buf, &sin->sin_addr) == 1)
		sin->sin_family = AF_INET;
	else if (inet_pton(AF_INET6, buf, &sin6->sin6_addr) == 1)
		sin6->sin6_family = AF_INET6;
	else
		return B_FALSE;
	return sockaddrunspec(reinterpret_cast<struct sockaddr *>(&ss)) ? B_TRUE : B_FALSE;
}

boolean_t kel_valid_address(const char *text) noexcept
{
	if (text == nullptr)
		return B_FALSE;
	char buf[kAddressLen];
	address_part(text, buf);
	struct addrinfo *res = nullptr;
	if (getaddrinfo(buf, nullptr, nullptr, &res) != 0)
		return B_FALSE;
	freeaddrinfo(res);
	return B_TRUE;
}

}  // extern "C"
