// Owning what C interfaces hand out, in C++ code: one place for every owner the library
// uses, so that an early return or a bad_alloc on the way to KEL_E_NOMEM frees what it
// must, with the right function.
//   Owned<T, Free>   one record, freed with its free function
//   Text             a malloc'd string
//   AttrSetPtr, KelPtr   a property set, a switch record
//   StoreHandle      an open store handle (db_open), closed with kel_db_close
//   RecordList<T>    a list of kel_t, kel_vport_t, kel_ipnet_t, kel_prop_t,
//                    kel_ctrlprop_t, kel_togprop_t, kel_store_problem_t or kel_drift_t
//                    records, read by a lister or built with append and handed out
//   OwnedArray<T, FreeArray>   an array of records and its length, as the controller's
//                    records come (kelcntl_VPortInfo **, int)
//   each<T>          range-for over a list owned elsewhere
//   Hold<GiveBack>   a value drawn from a range or pool, given back unless kept
// It is built on the public C API alone, so keladm and keld use it too. A file
// descriptor's owner is UniqueFd, in unique_fd.h.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <kel/libkel.h>

namespace kel {

template <auto Free>
struct FreeWith {
	template <class T>
	void operator()(T *p) const
	{
		Free(p);
	}
};

// Owned<kelcntl_KELError, kelcntl_KELError_free> err(raw);
template <class T, auto Free>
using Owned = std::unique_ptr<T, FreeWith<Free>>;

// A string the C library allocated (strdup, kel_attrset2str and the like).
using Text = Owned<char, std::free>;
// A property set, and a switch record with its members.
using AttrSetPtr = Owned<attrset_t, attrset_free>;
using KelPtr = Owned<kel_t, kel_free_kel>;
// An open store handle.
using StoreHandle = Owned<std::remove_pointer_t<kel_dbhandle_t>, kel_db_close>;

// Opens the store (KEL_DB_READONLY or KEL_DB_READWRITE) into *out, owned, closing what
// *out held before; kel_db_open's code.
inline int db_open(StoreHandle *out, int mode)
{
	out->reset();
	kel_dbhandle_t raw = nullptr;
	const int rc = kel_db_open(&raw, mode);
	out->reset(raw);
	return rc;
}

// The text of a property set ("a=1,b=2") into *out, owned.
inline int props_text(attrset_t *set, Text *out)
{
	char *raw = nullptr;
	const int rc = kel_attrset2str(set, &raw);
	out->reset(raw);
	return rc;
}

// Where each kind of record keeps its list node, and which function frees a list of it,
// records and all.
template <class T>
struct ListOf;
#define KEL_LIST_OF(T, node_member, free_list)                           \
	template <>                                                      \
	struct ListOf<T> {                                               \
		static constexpr size_t node = offsetof(T, node_member); \
		static void free(list_t *l) { free_list(l); }            \
	};
KEL_LIST_OF(kel_t, kel_node, kel_free_kellist)
KEL_LIST_OF(kel_vport_t, evp_node, kel_free_vportlist)
KEL_LIST_OF(kel_ipnet_t, ei_node, kel_free_ipnetlist)
KEL_LIST_OF(kel_prop_t, ep_node, kel_free_proplist)
KEL_LIST_OF(kel_ctrlprop_t, ecp_node, kel_free_ctrlproplist)
KEL_LIST_OF(kel_togprop_t, esp_node, kel_free_togproplist)
KEL_LIST_OF(kel_store_problem_t, esp_node, kel_free_problemlist)
KEL_LIST_OF(kel_drift_t, edr_node, kel_free_driftlist)
#undef KEL_LIST_OF

// Walks the records of a list_t.
template <class T>
class ListIterator {
public:
	ListIterator(list_t *l, T *at) : l_(l), at_(at) {}
	T *operator*() const { return at_; }
	ListIterator &operator++()
	{
		at_ = static_cast<T *>(list_next(l_, at_));
		return *this;
	}
	bool operator!=(const ListIterator &o) const { return at_ != o.at_; }

private:
	list_t *l_;
	T *at_;
};

// Range-for over a list someone else owns, such as a kel's ports:
//   for (kel_vport_t *vp : kel::each<kel_vport_t>(&k->kel_ports))
template <class T>
class each {
public:
	explicit each(list_t *l) : l_(l) {}
	ListIterator<T> begin() const { return {l_, static_cast<T *>(list_head(l_))}; }
	ListIterator<T> end() const { return {l_, nullptr}; }

private:
	list_t *l_;
};

// A list of records, freed records and all on scope exit. A lister fills it, and it owns
// the list only once the lister has succeeded (a failed lister leaves nothing to free):
//   kel::RecordList<kel_vport_t> ports;
//   int rc = ports.read([&](list_t *l) { return kel_db_get_filtered_vportlist(h, f, l, 0); });
//   for (kel_vport_t *vp : ports) ...
// Or a lister of the library's builds it and hands it to its caller only once it is whole:
//   kel::RecordList<kel_drift_t> built;
//   kel_drift_t *rec = built.append();   // nullptr: KEL_E_NOMEM, the rest freed
//   ... built.release(out);
template <class T>
class RecordList {
public:
	RecordList() = default;
	~RecordList()
	{
		if (owned_)
			ListOf<T>::free(&list_);
	}
	RecordList(const RecordList &) = delete;
	RecordList &operator=(const RecordList &) = delete;

	// Runs `lister` on the list and keeps it when it answers KEL_SUCCESS. A list read
	// before is freed first, so a second read (a fallback filter) leaks nothing.
	template <class Lister>
	int read(Lister &&lister)
	{
		if (owned_)
			ListOf<T>::free(&list_);
		owned_ = false;
		const int rc = lister(&list_);
		owned_ = rc == KEL_SUCCESS;
		return rc;
	}

	ListIterator<T> begin() { return {&list_, owned_ ? static_cast<T *>(list_head(&list_)) : nullptr}; }
	ListIterator<T> end() { return {&list_, nullptr}; }

	T *front() { return owned_ ? static_cast<T *>(list_head(&list_)) : nullptr; }
	bool empty() { return front() == nullptr; }
	// Takes `record` out of the list: the caller owns it from then on.
	T *take(T *record)
	{
		list_remove(&list_, record);
		return record;
	}
	list_t *get() { return &list_; }
	// A new zeroed record at the tail, owned with the list (its free function frees
	// whatever of it has been filled); nullptr when memory runs out.
	T *append()
	{
		if (!owned_)
			start();
		auto *record = static_cast<T *>(std::calloc(1, sizeof(T)));
		if (record != nullptr)
			list_insert_tail(&list_, record);
		return record;
	}
	// Hands the records over to the caller's list `out` (created here, empty when there are
	// none), freed by the caller from then on.
	void release(list_t *out)
	{
		list_create(out, sizeof(T), ListOf<T>::node);
		if (!owned_)
			return;
		while (void *record = list_remove_head(&list_))
			list_insert_tail(out, record);
		list_destroy(&list_);
		owned_ = false;
	}
	// A new empty list for the caller to fill (a row reader, say), owned from then on;
	// a list held before is freed first.
	list_t *start()
	{
		if (owned_)
			ListOf<T>::free(&list_);
		list_create(&list_, sizeof(T), ListOf<T>::node);
		owned_ = true;
		return &list_;
	}

private:
	list_t list_{};
	bool owned_ = false;
};

// An array of records handed out with its length, as the controller's records come
// (kelcntl_VPortInfo **, int), freed records and all with FreeArray(array, count) on
// scope exit:
//   kel::OwnedArray<kelcntl_VPortInfo, kelcntl_VPortInfo_array_free> ports;
//   int rc = ports.read([&](kelcntl_VPortInfo ***a, int *n) { return kel_get_host_vnicinfo(a, n); });
// Whatever the call handed out is owned, whatever it answered.
template <class T, auto FreeArray>
class OwnedArray {
public:
	OwnedArray() = default;
	// An array being built: `count` slots, each freed when filled.
	OwnedArray(T **array, int count) : array_(array), count_(count) {}
	~OwnedArray() { reset(); }
	OwnedArray(const OwnedArray &) = delete;
	OwnedArray &operator=(const OwnedArray &) = delete;

	template <class Fetch>
	int read(Fetch &&fetch)
	{
		reset();
		return fetch(&array_, &count_);
	}

	T **get() const { return array_; }
	int size() const { return count_; }
	T **begin() const { return array_; }
	T **end() const { return array_ + count_; }
	// The array, its length into *count: the caller frees it from then on.
	T **release(int *count)
	{
		*count = std::exchange(count_, 0);
		return std::exchange(array_, nullptr);
	}

private:
	void reset()
	{
		if (array_ != nullptr)
			FreeArray(array_, count_);
		array_ = nullptr;
		count_ = 0;
	}

	T **array_ = nullptr;
	int count_ = 0;
};

// A value drawn from an ID range or an address pool: given back on scope exit, by
// whatever path the scope is left, unless the operation kept it.
//   kel::Hold address([&] { (void)kel_db_free_ipaddr(h, uuid, af, addr); });
//   ... draw; address.arm(); ... write; commit; address.keep();
// Declared after the operation's transaction, it gives back inside that transaction,
// before a rollback; inside a caller's transaction it is the only give-back there is.
template <class GiveBack>
class Hold {
public:
	explicit Hold(GiveBack give_back) : give_back_(std::move(give_back)) {}
	~Hold()
	{
		if (armed_)
			give_back_();
	}
	Hold(const Hold &) = delete;
	Hold &operator=(const Hold &) = delete;

	void arm() { armed_ = true; }    // the value is drawn
	void keep() { armed_ = false; }  // the operation succeeded: the value stays drawn

private:
	GiveBack give_back_;
	bool armed_ = false;
};

// A string property of a record's set ("" when it has none).
inline std::string prop_text(attrset_t *props, const char *name)
{
	char *value = nullptr;
	return props != nullptr && attrset_lookup_string(props, name, &value) == 0 && value != nullptr ? value : "";
}

}  // namespace kel
