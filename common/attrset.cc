// The attribute set: an ordered list of named, typed entries. Entries live in a
// std::list so that an entry pointer handed to a caller stays valid while others are
// added or removed; sets are small (a handful of properties), so lookups walk the list.
#include <cerrno>
#include <iterator>
#include <list>
#include <new>
#include <string>
#include <variant>

#include "c_boundary.h"
#include "libkel.h"

struct attrset_entry {
	std::string name;
	std::variant<int32_t, std::string> value;
	// Where the entry stands in its set, so that stepping to the next entry is O(1).
	std::list<attrset_entry>::iterator self;

	data_type_t type() const
	{
		return std::holds_alternative<std::string>(value) ? DATA_TYPE_STRING : DATA_TYPE_INT32;
	}
};

struct attrset {
	bool unique_names = false;
	std::list<attrset_entry> entries;
};

namespace {

template <class T>
int add_entry(attrset_t *set, const char *name, T &&value) noexcept
{
	if (set == nullptr || name == nullptr)
		return EINVAL;
	// Sets answer in errno codes.
	return kel::c_boundary_as(ENOMEM, EIO, [&] {
		// Build the new entry before dropping the old ones, so that a failed add
		// leaves the set as it was.
		std::list<attrset_entry> fresh;
		fresh.push_back(attrset_entry{name, std::forward<T>(value), {}});
		fresh.front().self = fresh.begin();  // splice keeps iterators valid
		if (set->unique_names)
			set->entries.remove_if([&](const attrset_entry &e) { return e.name == name; });
		set->entries.splice(set->entries.end(), fresh);
		return 0;
	});
}

}  // namespace

extern "C" {

int attrset_create(attrset_t **setp, int flags) noexcept
{
	if (setp == nullptr)
		return EINVAL;
	*setp = nullptr;
	if ((flags & ~ATTRSET_UNIQUE_NAME) != 0)
		return EINVAL;
	auto *set = new (std::nothrow) attrset_t;
	if (set == nullptr)
		return ENOMEM;
	set->unique_names = (flags & ATTRSET_UNIQUE_NAME) != 0;
	*setp = set;
	return 0;
}

void attrset_free(attrset_t *set) noexcept
{
	delete set;
}

int attrset_add_string(attrset_t *set, const char *name, const char *value) noexcept
{
	if (value == nullptr)
		return EINVAL;
	return kel::c_boundary_as(ENOMEM, EIO, [&] { return add_entry(set, name, std::string(value)); });
}

int attrset_add_int32(attrset_t *set, const char *name, int32_t value) noexcept
{
	return add_entry(set, name, value);
}

int attrset_lookup_string(attrset_t *set, const char *name, char **valuep) noexcept
{
	if (set == nullptr || name == nullptr || valuep == nullptr)
		return EINVAL;
	for (attrset_entry &e : set->entries) {
		if (e.name != name)
			continue;
		auto *text = std::get_if<std::string>(&e.value);
		if (text == nullptr)
			return EINVAL;
		*valuep = text->data();
		return 0;
	}
	return ENOENT;
}

boolean_t attrset_exists(attrset_t *set, const char *name) noexcept
{
	if (set == nullptr || name == nullptr)
		return B_FALSE;
	for (const attrset_entry &e : set->entries)
		if (e.name == name)
			return B_TRUE;
	return B_FALSE;
}

int attrset_remove(attrset_t *set, const char *name, data_type_t type) noexcept
{
	if (set == nullptr || name == nullptr)
		return EINVAL;
	auto removed = set->entries.remove_if(
	    [&](const attrset_entry &e) { return e.name == name && e.type() == type; });
	return removed == 0 ? ENOENT : 0;
}

attrset_entry_t *attrset_next_entry(attrset_t *set, attrset_entry_t *entry) noexcept
{
	if (set == nullptr || set->entries.empty())
		return nullptr;
	if (entry == nullptr)
		return &set->entries.front();
	auto next = std::next(entry->self);
	return next == set->entries.end() ? nullptr : &*next;
}

const char *attrset_entry_name(attrset_entry_t *entry) noexcept
{
	return entry == nullptr ? nullptr : entry->name.c_str();
}

data_type_t attrset_entry_type(attrset_entry_t *entry) noexcept
{
	return entry->type();
}

int attrset_entry_value_string(attrset_entry_t *entry, char **valuep) noexcept
{
	if (entry == nullptr || valuep == nullptr)
		return EINVAL;
	auto *text = std::get_if<std::string>(&entry->value);
	if (text == nullptr)
		return EINVAL;
	*valuep = text->data();
	return 0;
}

int attrset_entry_value_int32(attrset_entry_t *entry, int32_t *valuep) noexcept
{
	if (entry == nullptr || valuep == nullptr)
		return EINVAL;
	auto *number = std::get_if<int32_t>(&entry->value);
	if (number == nullptr)
		return EINVAL;
	*valuep = *number;
	return 0;
}

}  // extern "C"
