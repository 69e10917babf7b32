// The property-string codec: name=value entries joined by commas, no quoting. A value
// may itself hold commas but never '=', so a text is read from its end: the last '='
// closes the last entry's name, and the comma before that name ends the entry before.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "attrset_ptr.h"
#include "number.h"

namespace {

bool is_space(char c)
{
	return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// The set being read into, made when the first entry arrives.
class SetBuilder {
public:
	explicit SetBuilder(int flags) : flags_(flags) {}
	~SetBuilder() { attrset_free(set_); }

	int add(const char *name, const char *value)
	{
		if (set_ == nullptr && attrset_create(&set_, flags_) != 0)
			return KEL_E_NOMEM;
		return attrset_add_string(set_, name, value) == 0 ? KEL_SUCCESS : KEL_E_NOMEM;
	}

	attrset_t *release()
	{
		attrset_t *set = set_;
		set_ = nullptr;
		return set;
	}

private:
	int flags_;
	attrset_t *set_ = nullptr;
};

// The last `c` among the first `len` bytes of `text`, or NULL. The readers below cut
// their text from the end, so each search covers only what is left: a text of N entries
// is read in one pass, not N.
char *last_of(char *text, size_t len, char c)
{
	return static_cast<char *>(memrchr(text, c, len));
}

// Names-only text: every comma-separated piece is a name with the empty value.
int read_names(char *text, size_t len, SetBuilder &out)
{
	for (;;) {
		char *comma = last_of(text, len, ',');
		if (comma == nullptr)
			return out.add(text, "");
		*comma = '\0';
		len = comma - text;
		if (int rc = out.add(comma + 1, ""); rc != KEL_SUCCESS)
			return rc;
	}
}

int read_pairs(char *text, size_t len, SetBuilder &out)
{
	for (;;) {
		char *eq = last_of(text, len, '=');
		if (eq == nullptr)
			return KEL_E_INVALID_ARGS;  // a leading piece without '='
		*eq = '\0';
		len = eq - text;
		const char *value = eq + 1;
		char *comma = last_of(text, len, ',');
		if (comma == nullptr)
			return out.add(text, value);
		*comma = '\0';
		len = comma - text;
		if (int rc = out.add(comma + 1, value); rc != KEL_SUCCESS)
			return rc;
	}
}

}  // namespace

extern "C" {

int kel_str2attrset(const char *text, attrset_t **out, boolean_t values, int flags) noexcept
{
	if (text == nullptr || out == nullptr)
		return KEL_E_INVALID_ARGS;
	*out = nullptr;
	const size_t len = std::strlen(text);
	if (len == 0)
		return KEL_SUCCESS;
	if (text[len - 1] == ',' || (values && std::strchr(text, '=') == nullptr))
		return KEL_E_INVALID_ARGS;

	char *copy = strdup(text);
	if (copy == nullptr)
		return KEL_E_NOMEM;
	char *start = copy;
	while (is_space(*start))
		start++;
	int rc = KEL_E_INVALID_ARGS;
	SetBuilder set(flags);
	if (*start != '\0') {
		const size_t left = len - (start - copy);
		rc = values ? read_pairs(start, left, set) : read_names(start, left, set);
	}
	std::free(copy);
	if (rc == KEL_SUCCESS)
		*out = set.release();
	return rc;
}

int kel_attrset2str(attrset_t *set, char **out) noexcept
{
	if (out == nullptr)
		return KEL_E_INVALID_ARGS;
	*out = nullptr;
	// Each entry needs its name, its value, '=' and a comma or the terminator.
	size_t size = 0;
	for (attrset_entry_t *e = attrset_next_entry(set, nullptr); e != nullptr; e = attrset_next_entry(set, e)) {
		char *value = nullptr;
		if (attrset_entry_value_string(e, &value) != 0)
			return KEL_E_INVALID_ARGS;
		size += std::strlen(attrset_entry_name(e)) + std::strlen(value) + 2;
	}
	char *text = static_cast<char *>(std::calloc(size == 0 ? 1 : size, 1));
	if (text == nullptr)
		return KEL_E_NOMEM;
	size_t n = 0;
	for (attrset_entry_t *e = attrset_next_entry(set, nullptr); e != nullptr; e = attrset_next_entry(set, e)) {
		char *value = nullptr;
		(void)attrset_entry_value_string(e, &value);
		if (*value == '\0')
			continue;  // an empty value is how a property is cleared
		n += std::snprintf(text + n, size - n, n == 0 ? "%s=%s" : ",%s=%s", attrset_entry_name(e), value);
	}
	*out = text;
	return KEL_SUCCESS;
}

int kel_create_attrstr(char *buf, size_t size, const char *tail, int count, ...) noexcept
{
	if (buf == nullptr || size == 0)
		return KEL_E_NOSPACE;
	buf[0] = '\0';
	size_t n = 0;
	va_list ap;
	va_start(ap, count);
	for (int i = 0; i < count; i++) {
		const char *name = va_arg(ap, const char *);
		const char *value = va_arg(ap, const char *);
		if (name == nullptr || value == nullptr || *value == '\0')
			continue;
		n += std::snprintf(buf + n, size - n, n == 0 ? "%s=%s" : ",%s=%s", name, value);
		if (n >= size) {
			va_end(ap);
			return KEL_E_NOSPACE;
		}
	}
	va_end(ap);
	if (tail != nullptr && *tail != '\0') {
		n += std::snprintf(buf + n, size - n, "%s%s", n != 0 ? "," : "", tail);
		if (n >= size)
			return KEL_E_NOSPACE;
	}
	return KEL_SUCCESS;
}

attrset_t *kel_create_attrset(int count, ...) noexcept
{
	attrset_t *set = nullptr;
	if (attrset_create(&set, ATTRSET_UNIQUE_NAME) != 0)
		return nullptr;
	va_list ap;
	va_start(ap, count);
	for (int i = 0; i < count && set != nullptr; i++) {
		const char *name = va_arg(ap, const char *);
		(void)va_arg(ap, int);  // the type: strings are the only kind callers pass
		const char *value = va_arg(ap, const char *);
		if (value != nullptr && attrset_add_string(set, name, value) != 0) {
			attrset_free(set);
			set = nullptr;
		}
	}
	va_end(ap);
	return set;
}

int kel_attrset_count(attrset_t *set) noexcept
{
	int count = 0;
	for (attrset_entry_t *e = attrset_next_entry(set, nullptr); e != nullptr; e = attrset_next_entry(set, e))
		count++;
	return count;
}

int kel_str2int(const char *text, int *out) noexcept
{
	if (text == nullptr || out == nullptr)
		return KEL_E_INVALID_ARGS;
	long value;
	if (!kel::parse_long(text, &value))
		return KEL_E_INVALID_ARGS;
	*out = static_cast<int>(value);
	return KEL_SUCCESS;
}

}  // extern "C"

bool kel::parse_long(const char *text, long *value)
{
	char *end = nullptr;
	errno = 0;
	const long v = std::strtol(text, &end, 10);
	if (errno != 0 || *end != '\0')
		return false;
	*value = v;
	return true;
}

namespace kel {

int read_props(const char *text, AttrSetPtr *out, const PropsCodes &codes)
{
	if (text == nullptr && codes.null_text != KEL_SUCCESS)
		return codes.null_text;
	attrset_t *set = nullptr;
	int rc = kel_str2attrset(text != nullptr ? text : "", &set, B_TRUE, ATTRSET_UNIQUE_NAME);
	if (rc == KEL_E_INVALID_ARGS)
		return codes.malformed;
	if (rc != KEL_SUCCESS)
		return rc;
	if (set == nullptr && codes.empty != KEL_SUCCESS)
		return codes.empty;
	// An empty text is a valid, empty set: it may lack what the operation needs, but it
	// is not malformed.
	if (set == nullptr && attrset_create(&set, ATTRSET_UNIQUE_NAME) != 0)
		return KEL_E_NOMEM;
	out->reset(set);
	return KEL_SUCCESS;
}

}  // namespace kel
