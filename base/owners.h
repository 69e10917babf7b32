// Owning what C interfaces hand out, in C++ code: one place for every owner the library
// uses, so that an early return or a bad_alloc on the way to KEL_E_NOMEM frees what it
// must, with the right function.
//   Owned<T, Free>   one record, freed with its free function
//   Text             a malloc'd string
//   AttrSetPtr, KelPtr   a property set, a switch record
//   RecordList<T>    a list of kel_t, kel_vport_t, kel_ipnet_t, kel_prop_t,
//                    kel_ctrlprop_t, kel_togprop_t or kel_store_problem_t records,
//                    read by a lister
//   each<T>          range-for over a list owned elsewhere
// It is built on the public C API alone, so keladm uses it too.
//   Hold<GiveBack>   a value drawn from a range or pool, given back unless kept
#pragma once

#include <cstdlib>
#include <memory>
#include <utility>

#include <kel/libkel.h>

namespace kel {

template <auto Free>
struct FreeWith {
	template <class T>
	void operator()(T *p) const { Free(p); }
};

// Owned<kelcntl_KELError, kelcntl_KELError_free> err(raw);
template <class T, auto Free>
using Owned = std::unique_ptr<T, FreeWith<Free>>;

// A string the C library allocated (strdup, kel_attrset2str and the like).
using Text = Owned<char, std::free>;
// A property set, and a switch record with its members.
using AttrSetPtr = Owned<attrset_t, attrset_free>;
using KelPtr = Owned<kel_t, kel_free_kel>;

// The text of a property set ("a=1,b=2") into *out, owned.
inline int props_text(attrset_t *set, Text *out)
{
	char *raw = nullptr;
	const int rc = kel_attrset2str(set, &raw);
	out->reset(raw);
	return rc;
}

// Which function frees a list of each kind of record.
template <class T>
struct ListFree;
template <>
struct ListFree<kel_t> { static void free(list_t *l) { kel_free_kellist(l); } };
template <>
struct ListFree<kel_vport_t> { static void free(list_t *l) { kel_free_vportlist(l); } };
template <>
struct ListFree<kel_ipnet_t> { static void free(list_t *l) { kel_free_ipnetlist(l); } };
template <>
struct ListFree<kel_prop_t> { static void free(list_t *l) { kel_free_proplist(l); } };
template <>
struct ListFree<kel_ctrlprop_t> { static void free(list_t *l) { kel_free_ctrlproplist(l); } };
template <>
struct ListFree<kel_togprop_t> { static void free(list_t *l) { kel_free_togproplist(l); } };
template <>
struct ListFree<kel_store_problem_t> { static void free(list_t *l) { kel_free_problemlist(l); } };
template <>
struct ListFree<kel_drift_t> { static void free(list_t *l) { kel_free_driftlist(l); } };

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

// A list of records that a lister fills. It owns the list only once the lister has
// succeeded (a failed lister leaves nothing to free), and frees it, records and all,
// on scope exit:
//   kel::RecordList<kel_vport_t> ports;
//   int rc = ports.read([&](list_t *l) { return kel_db_get_filtered_vportlist(h, f, l, 0); });
//   for (kel_vport_t *vp : ports) ...
template <class T>
class RecordList {
public:
	RecordList() = default;
	~RecordList()
	{
		if (owned_)
			ListFree<T>::free(&list_);
	}
	RecordList(const RecordList &) = delete;
	RecordList &operator=(const RecordList &) = delete;

	// Runs `lister` on the list and keeps it when it answers KEL_SUCCESS. A list read
	// before is freed first, so a second read (a fallback filter) leaks nothing.
	template <class Lister>
	int read(Lister &&lister)
	{
		if (owned_)
			ListFree<T>::free(&list_);
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
	// For a list the caller creates itself (kel_create_kellist(list.own())): owned from
	// then on.
	list_t *own()
	{
		owned_ = true;
		return &list_;
	}

private:
	list_t list_{};
	bool owned_ = false;
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

	void arm() { armed_ = true; }	// the value is drawn
	void keep() { armed_ = false; }	// the operation succeeded: the value stays drawn

private:
	GiveBack give_back_;
	bool armed_ = false;
};

}  // namespace kel
