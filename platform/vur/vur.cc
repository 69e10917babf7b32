// The repository's objects over the instance files.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "instance_file.h"
#include "vur.h"

struct vur_handle {
	bool bound = false;
};

struct vur_instance {
	vur_handle_t *handle;
	std::string fmri;
	std::string path;  // empty until decoded
};

struct vur_propertygroup {
	vur_handle_t *handle;
	std::string path;  // the instance's file; empty until fetched
	vur::Group group;  // as read when fetched or updated
};

struct vur_property {
	vur_handle_t *handle;
	bool set = false;
	vur::Property prop;
};

struct vur_value {
	vur_handle_t *handle;
	bool set = false;
	vur_type_t type = VUR_TYPE_ASTRING;
	std::string text;
};

struct vur_transaction_entry {
	vur_handle_t *handle;
	std::vector<std::string> values;
};

namespace {

enum class OpKind { New, Change, Delete };

struct Op {
	OpKind kind;
	std::string name;
	vur_type_t type;
	vur_transaction_entry_t *entry;
};

}  // namespace

struct vur_transaction {
	vur_handle_t *handle;
	vur_propertygroup_t *pg = nullptr;  // set by start
	uint64_t start_generation = 0;
	std::vector<Op> ops;
};

struct vur_iter {
	vur_handle_t *handle;
	std::string path;
	std::vector<vur::Group> groups;    // iterating groups
	std::vector<vur::Property> props;  // or properties of one group
	size_t next = 0;
	bool over_groups = true;
};

namespace {

thread_local int last_error = VUR_ERROR_NONE;

int fail(int err)
{
	last_error = err;
	return -1;
}

}  // namespace

void vur::set_error(int err)
{
	last_error = err;
}

namespace {

template <class T>
T *fail_null(int err)
{
	last_error = err;
	return nullptr;
}

template <class T>
T *make(vur_handle_t *h)
{
	if (h == nullptr)
		return fail_null<T>(VUR_ERROR_INVALID_ARGUMENT);
	T *obj = new (std::nothrow) T{};
	if (obj == nullptr)
		return fail_null<T>(VUR_ERROR_NO_MEMORY);
	obj->handle = h;
	return obj;
}

ssize_t copy_out(const std::string &text, char *buf, size_t size)
{
	if (buf != nullptr && size > 0) {
		const size_t n = text.size() < size ? text.size() : size - 1;
		std::memcpy(buf, text.data(), n);
		buf[n] = '\0';
	}
	return static_cast<ssize_t>(text.size());
}

bool valid_net_address(const std::string &text)
{
	const std::string addr = text.substr(0, text.find('/'));
	unsigned char buf[sizeof(struct in6_addr)];
	int af = AF_INET;
	if (inet_pton(AF_INET, addr.c_str(), buf) != 1) {
		af = AF_INET6;
		if (inet_pton(AF_INET6, addr.c_str(), buf) != 1)
			return false;
	}
	if (addr.size() == text.size())
		return true;
	const std::string prefix = text.substr(addr.size() + 1);
	if (prefix.empty() || prefix.size() > 3 || prefix.find_first_not_of("0123456789") != std::string::npos)
		return false;
	return std::stoi(prefix) <= (af == AF_INET ? 32 : 128);
}

// Reads group `name` of the instance file at `path` into `pg`.
int fetch_group(const std::string &path, const char *name, vur_propertygroup_t *pg)
{
	vur::InstanceFile file;
	if (int err = vur::load(path, &file); err != VUR_ERROR_NONE)
		return fail(err);
	vur::Group *g = file.find(name);
	if (g == nullptr)
		return fail(VUR_ERROR_NOT_FOUND);
	pg->path = path;
	pg->group = *g;
	return 0;
}

}  // namespace

extern "C" {

int vur_error(void)
{
	return last_error;
}

const char *vur_strerror(int err)
{
	switch (err) {
	case VUR_ERROR_NONE: return "no error";
	case VUR_ERROR_NOT_BOUND: return "repository handle not bound";
	case VUR_ERROR_NOT_SET: return "object not set";
	case VUR_ERROR_NOT_FOUND: return "entity not found";
	case VUR_ERROR_TYPE_MISMATCH: return "type does not match value";
	case VUR_ERROR_IN_USE: return "object already in use";
	case VUR_ERROR_INVALID_ARGUMENT: return "invalid argument";
	case VUR_ERROR_NO_MEMORY: return "out of memory";
	case VUR_ERROR_CONSTRAINT_VIOLATED: return "name does not designate an instance";
	case VUR_ERROR_EXISTS: return "object already exists";
	case VUR_ERROR_PERMISSION_DENIED: return "permission denied";
	case VUR_ERROR_BACKEND_ACCESS: return "configuration file cannot be read or written";
	}
	return "unknown repository error";
}

vur_handle_t *vur_handle_create(int version)
{
	if (version != 1)
		return fail_null<vur_handle_t>(VUR_ERROR_INVALID_ARGUMENT);
	auto *h = new (std::nothrow) vur_handle_t;
	return h != nullptr ? h : fail_null<vur_handle_t>(VUR_ERROR_NO_MEMORY);
}

int vur_handle_bind(vur_handle_t *h)
{
	if (h == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (h->bound)
		return fail(VUR_ERROR_IN_USE);
	h->bound = true;
	return 0;
}

int vur_handle_unbind(vur_handle_t *h)
{
	if (h == nullptr || !h->bound)
		return fail(VUR_ERROR_NOT_BOUND);
	h->bound = false;
	return 0;
}

void vur_handle_destroy(vur_handle_t *h)
{
	delete h;
}

vur_instance_t *vur_instance_create(vur_handle_t *h)
{
	return make<vur_instance_t>(h);
}
void vur_instance_destroy(vur_instance_t *inst)
{
	delete inst;
}

int vur_handle_decode_fmri(vur_handle_t *h, const char *fmri, void *, void *, vur_instance_t *inst, void *, void *, int)
{
	if (h == nullptr || fmri == nullptr || inst == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (!h->bound)
		return fail(VUR_ERROR_NOT_BOUND);
	const std::string path = vur::instance_path(fmri);
	if (path.empty())
		return fail(VUR_ERROR_CONSTRAINT_VIOLATED);
	inst->fmri = fmri;
	inst->path = path;
	return 0;
}

vur_propertygroup_t *vur_pg_create(vur_handle_t *h)
{
	return make<vur_propertygroup_t>(h);
}
void vur_pg_destroy(vur_propertygroup_t *pg)
{
	delete pg;
}
vur_property_t *vur_property_create(vur_handle_t *h)
{
	return make<vur_property_t>(h);
}
void vur_property_destroy(vur_property_t *prop)
{
	delete prop;
}
vur_value_t *vur_value_create(vur_handle_t *h)
{
	return make<vur_value_t>(h);
}
void vur_value_destroy(vur_value_t *val)
{
	delete val;
}

int vur_instance_get_pg_composed(const vur_instance_t *inst, const vur_snapshot_t *, const char *name,
    vur_propertygroup_t *pg)
{
	return vur_instance_get_pg(inst, name, pg);
}

int vur_instance_get_pg(const vur_instance_t *inst, const char *name, vur_propertygroup_t *pg)
{
	if (inst == nullptr || name == nullptr || pg == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (inst->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	return fetch_group(inst->path, name, pg);
}

int vur_instance_add_pg(const vur_instance_t *inst, const char *name, const char *type, uint32_t,
    vur_propertygroup_t *pg)
{
	if (inst == nullptr || name == nullptr || type == nullptr || pg == nullptr || *name == '\0' ||
	    std::strpbrk(name, "[]\n") != nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (inst->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	vur::Group made;
	int err = vur::update(inst->path, [&](vur::InstanceFile &file) {
		if (file.find(name) != nullptr)
			return VUR_ERROR_EXISTS;
		file.groups.push_back(vur::Group{name, type, file.generation + 1, {}});
		made = file.groups.back();
		return VUR_ERROR_NONE;
	});
	if (err != VUR_ERROR_NONE)
		return fail(err);
	pg->path = inst->path;
	pg->group = made;
	return 0;
}

int vur_pg_delete(vur_propertygroup_t *pg)
{
	if (pg == nullptr || pg->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	int err = vur::update(pg->path, [&](vur::InstanceFile &file) {
		for (auto it = file.groups.begin(); it != file.groups.end(); ++it)
			if (it->name == pg->group.name) {
				file.groups.erase(it);
				return VUR_ERROR_NONE;
			}
		return VUR_ERROR_NOT_FOUND;
	});
	return err == VUR_ERROR_NONE ? 0 : fail(err);
}

int vur_pg_update(vur_propertygroup_t *pg)
{
	if (pg == nullptr || pg->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	const std::string name = pg->group.name;
	return fetch_group(pg->path, name.c_str(), pg);
}

ssize_t vur_pg_get_name(const vur_propertygroup_t *pg, char *buf, size_t size)
{
	if (pg == nullptr || pg->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	return copy_out(pg->group.name, buf, size);
}

int vur_pg_get_property(const vur_propertygroup_t *pg, const char *name, vur_property_t *prop)
{
	if (pg == nullptr || name == nullptr || prop == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (pg->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	for (const vur::Property &p : pg->group.props)
		if (p.name == name) {
			prop->prop = p;
			prop->set = true;
			return 0;
		}
	return fail(VUR_ERROR_NOT_FOUND);
}

ssize_t vur_property_get_name(const vur_property_t *prop, char *buf, size_t size)
{
	if (prop == nullptr || !prop->set)
		return fail(VUR_ERROR_NOT_SET);
	return copy_out(prop->prop.name, buf, size);
}

int vur_property_get_value(const vur_property_t *prop, vur_value_t *val)
{
	if (prop == nullptr || val == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (!prop->set)
		return fail(VUR_ERROR_NOT_SET);
	val->set = true;
	val->type = prop->prop.type;
	val->text = prop->prop.value;
	return 0;
}

ssize_t vur_value_get_astring(const vur_value_t *val, char *buf, size_t size)
{
	if (val == nullptr || !val->set)
		return fail(VUR_ERROR_NOT_SET);
	if (val->type != VUR_TYPE_ASTRING)
		return fail(VUR_ERROR_TYPE_MISMATCH);
	return copy_out(val->text, buf, size);
}

ssize_t vur_value_get_as_string(const vur_value_t *val, char *buf, size_t size)
{
	if (val == nullptr || !val->set)
		return fail(VUR_ERROR_NOT_SET);
	return copy_out(val->text, buf, size);
}

ssize_t vur_value_get_as_string_typed(const vur_value_t *val, vur_type_t type, char *buf, size_t size)
{
	if (val == nullptr || !val->set)
		return fail(VUR_ERROR_NOT_SET);
	if (val->type != type)
		return fail(VUR_ERROR_TYPE_MISMATCH);
	return copy_out(val->text, buf, size);
}

int vur_value_set_astring(vur_value_t *val, const char *text)
{
	return vur_value_set_from_string(val, VUR_TYPE_ASTRING, text);
}

int vur_value_set_from_string(vur_value_t *val, vur_type_t type, const char *text)
{
	if (val == nullptr || text == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (type != VUR_TYPE_ASTRING && type != VUR_TYPE_NET_ADDR)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (type == VUR_TYPE_NET_ADDR && !valid_net_address(text))
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	val->set = true;
	val->type = type;
	val->text = text;
	return 0;
}

vur_transaction_t *vur_transaction_create(vur_handle_t *h)
{
	return make<vur_transaction_t>(h);
}
void vur_transaction_destroy(vur_transaction_t *tx)
{
	delete tx;
}
vur_transaction_entry_t *vur_entry_create(vur_handle_t *h)
{
	return make<vur_transaction_entry_t>(h);
}
void vur_entry_destroy(vur_transaction_entry_t *entry)
{
	delete entry;
}

int vur_transaction_start(vur_transaction_t *tx, vur_propertygroup_t *pg)
{
	if (tx == nullptr || pg == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (pg->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	if (tx->pg != nullptr)
		return fail(VUR_ERROR_IN_USE);
	tx->pg = pg;
	tx->start_generation = pg->group.generation;
	tx->ops.clear();
	return 0;
}

static int declare(vur_transaction_t *tx, vur_transaction_entry_t *entry, const char *name, vur_type_t type,
    OpKind kind)
{
	if (tx == nullptr || entry == nullptr || name == nullptr || *name == '\0' ||
	    std::strpbrk(name, " =\n[") != nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (tx->pg == nullptr)
		return fail(VUR_ERROR_NOT_SET);
	const bool exists = tx->pg->group.find(name) != nullptr;
	if (kind == OpKind::New && exists)
		return fail(VUR_ERROR_EXISTS);
	if (kind != OpKind::New && !exists)
		return fail(VUR_ERROR_NOT_FOUND);
	entry->values.clear();
	tx->ops.push_back(Op{kind, name, type, entry});
	return 0;
}

int vur_transaction_property_new(vur_transaction_t *tx, vur_transaction_entry_t *entry, const char *name,
    vur_type_t type)
{
	return declare(tx, entry, name, type, OpKind::New);
}

int vur_transaction_property_change(vur_transaction_t *tx, vur_transaction_entry_t *entry, const char *name,
    vur_type_t type)
{
	return declare(tx, entry, name, type, OpKind::Change);
}

int vur_transaction_property_delete(vur_transaction_t *tx, vur_transaction_entry_t *entry, const char *name)
{
	return declare(tx, entry, name, VUR_TYPE_ASTRING, OpKind::Delete);
}

int vur_entry_add_value(vur_transaction_entry_t *entry, vur_value_t *val)
{
	if (entry == nullptr || val == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (!val->set)
		return fail(VUR_ERROR_NOT_SET);
	entry->values.push_back(val->text);
	return 0;
}

int vur_transaction_commit(vur_transaction_t *tx)
{
	if (tx == nullptr || tx->pg == nullptr)
		return fail(VUR_ERROR_NOT_SET);
	bool changed_meanwhile = false;
	const std::string name = tx->pg->group.name;
	int err = vur::update(tx->pg->path, [&](vur::InstanceFile &file) {
		vur::Group *g = file.find(name);
		if (g == nullptr)
			return VUR_ERROR_NOT_FOUND;  // deleted since it was fetched
		if (g->generation != tx->start_generation) {
			changed_meanwhile = true;
			return VUR_ERROR_IN_USE;  // nothing is written
		}
		for (const Op &op : tx->ops) {
			vur::Property *p = g->find(op.name);
			if (op.kind == OpKind::Delete) {
				std::erase_if(g->props, [&](const vur::Property &q) { return q.name == op.name; });
				continue;
			}
			// A property holds one value; an entry without one stores the empty text.
			const std::string value = op.entry->values.empty() ? "" : op.entry->values.front();
			if (p == nullptr)
				g->props.push_back(vur::Property{op.name, op.type, value});
			else
				*p = vur::Property{op.name, op.type, value};
		}
		g->generation = file.generation + 1;
		return VUR_ERROR_NONE;
	});
	if (changed_meanwhile)
		return 0;
	return err == VUR_ERROR_NONE ? 1 : fail(err);
}

void vur_transaction_reset(vur_transaction_t *tx)
{
	if (tx == nullptr)
		return;
	tx->pg = nullptr;
	tx->ops.clear();
}

vur_iter_t *vur_iter_create(vur_handle_t *h)
{
	return make<vur_iter_t>(h);
}
void vur_iter_destroy(vur_iter_t *iter)
{
	delete iter;
}

void vur_iter_reset(vur_iter_t *iter)
{
	if (iter == nullptr)
		return;
	iter->groups.clear();
	iter->props.clear();
	iter->next = 0;
}

int vur_iter_instance_pgs_typed_composed(vur_iter_t *iter, const vur_instance_t *inst, const vur_snapshot_t *,
    const char *type)
{
	if (iter == nullptr || inst == nullptr || type == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (inst->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	vur::InstanceFile file;
	if (int err = vur::load(inst->path, &file); err != VUR_ERROR_NONE)
		return fail(err);
	vur_iter_reset(iter);
	iter->over_groups = true;
	iter->path = inst->path;
	for (const vur::Group &g : file.groups)
		if (g.type == type)
			iter->groups.push_back(g);
	return 0;
}

int vur_iter_pg_properties(vur_iter_t *iter, const vur_propertygroup_t *pg)
{
	if (iter == nullptr || pg == nullptr)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (pg->path.empty())
		return fail(VUR_ERROR_NOT_SET);
	vur_iter_reset(iter);
	iter->over_groups = false;
	iter->props = pg->group.props;
	return 0;
}

int vur_iter_next_pg(vur_iter_t *iter, vur_propertygroup_t *pg)
{
	if (iter == nullptr || pg == nullptr || !iter->over_groups)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (iter->next >= iter->groups.size())
		return 0;
	pg->path = iter->path;
	pg->group = iter->groups[iter->next++];
	return 1;
}

int vur_iter_next_property(vur_iter_t *iter, vur_property_t *prop)
{
	if (iter == nullptr || prop == nullptr || iter->over_groups)
		return fail(VUR_ERROR_INVALID_ARGUMENT);
	if (iter->next >= iter->props.size())
		return 0;
	prop->prop = iter->props[iter->next++];
	prop->set = true;
	return 1;
}

}  // extern "C"
