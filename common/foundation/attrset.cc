// The attribute set: an ordered list of named, typed entries. Entries live in a
// std::list so that an entry pointer handed to a caller stays valid while others are
// added or removed. Most sets are small (a handful of properties) and their lookups walk
// the list; a set that grows past a few entries (a caller's long filter or property
// text) also keeps where each name stands, so that replacing a name in a unique-name set
// and looking one up stay O(1) and reading N entries costs O(N), not O(N^2).
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <list>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>

#include <kel/libkel.h>
#include "c_boundary.h"

struct attrset_entry {
	std::string name;
	std::variant<int32_t, std::string> value;
	// Where the entry stands in its set, so that stepping to the next entry is O(1).
	std::list<attrset_entry>::iterator self;
	// Rises with each add: among entries of one name, the first in set order has the lowest.
	uint64_t order = 0;

	data_type_t type() const
	{
		return std::holds_alternative<std::string>(value) ? DATA_TYPE_STRING : DATA_TYPE_INT32;
	}
};

namespace {

using Entries = std::list<attrset_entry>;
// Keyed by a view of the entry's own name, which lives as long as the entry.
using NameIndex = std::unordered_multimap<std::string_view, Entries::iterator>;

// Below this many entries a walk is as cheap as a hash, and needs no memory of its own.
constexpr size_t kIndexFrom = 16;

}  // namespace

struct attrset {
	bool unique_names = false;
	Entries entries;
	uint64_t next_order = 0;
	bool indexed = false;  // once true, `index` holds every entry
	NameIndex index;

	// The first entry named `name` in set order, or entries.end().
	Entries::iterator first_named(std::string_view name)
	{
		if (!indexed)
			return std::find_if(entries.begin(), entries.end(),
			    [&](const attrset_entry &e) { return e.name == name; });
		Entries::iterator first = entries.end();
		auto [from, to] = index.equal_range(name);
		for (auto i = from; i != to; ++i)
			if (first == entries.end() || i->second->order < first->order)
				first = i->second;
		return first;
	}

	// Removes the entries named `name` that `match` accepts, but never `spare` (an entry
	// the index already holds that is not in the set yet); how many went.
	template <class Match>
	size_t remove_named(std::string_view name, Match &&match, const attrset_entry *spare = nullptr)
	{
		if (!indexed)
			return entries.remove_if([&](const attrset_entry &e) { return e.name == name && match(e); });
		size_t removed = 0;
		auto [from, to] = index.equal_range(name);
		while (from != to) {
			if (&*from->second == spare || !match(*from->second)) {
				++from;
				continue;
			}
			// The index's key is a view of the entry's name: it goes first.
			const Entries::iterator victim = from->second;
			from = index.erase(from);
			entries.erase(victim);
			removed++;
		}
		return removed;
	}

	// Takes in the one entry of `fresh`, dropping the entries of its name first when names
	// are unique. Throws std::bad_alloc before anything of the set has changed.
	void add(Entries &fresh)
	{
		const Entries::iterator e = fresh.begin();
		if (!indexed && entries.size() + 1 >= kIndexFrom) {
			NameIndex built;
			for (auto it = entries.begin(); it != entries.end(); ++it)
				built.emplace(it->name, it);
			index.swap(built);
			indexed = true;
		}
		if (indexed)
			index.emplace(e->name, e);  // splice keeps the iterator valid
		// From here on nothing throws.
		if (unique_names)
			remove_named(
			    e->name, [](const attrset_entry &) { return true; }, &*e);
		e->self = e;
		entries.splice(entries.end(), fresh);
	}
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
		Entries fresh;
		fresh.push_back(attrset_entry{name, std::forward<T>(value), {}, set->next_order++});
		set->add(fresh);
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
	const Entries::iterator e = set->first_named(name);
	if (e == set->entries.end())
		return ENOENT;
	auto *text = std::get_if<std::string>(&e->value);
	if (text == nullptr)
		return EINVAL;
	*valuep = text->data();
	return 0;
}

boolean_t attrset_exists(attrset_t *set, const char *name) noexcept
{
	if (set == nullptr || name == nullptr)
		return B_FALSE;
	return set->first_named(name) != set->entries.end() ? B_TRUE : B_FALSE;
}

int attrset_remove(attrset_t *set, const char *name, data_type_t type) noexcept
{
	if (set == nullptr || name == nullptr)
		return EINVAL;
	const size_t removed = set->remove_named(name, [&](const attrset_entry &e) { return e.type() == type; });
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
