// Checking a store against the invariants every operation keeps, and putting back what
// a store damaged by hand or by older versions leaked. The rows are read as they are,
// not through the record readers, which refuse the very damage this looks for.
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "allocator.h"
#include "attrset_ptr.h"
#include "audit.h"
#include "c_boundary.h"
#include "kelnet.h"
#include "range.h"
#include "row_order.h"
#include "schema.h"
#include "sql.h"
#include "store_handle.h"
#include "text.h"
#include "value_set.h"

namespace {

namespace schema = kel::schema;

using kel::Value;
using kel::ValueSet;

constexpr const char kSysVportPrefix[] = "sys-vport";
constexpr const char kAllVportNumbers[] = "0-2147483647";

// What the check found; `repairable` says whether the repair writes put it right.
struct Problem {
	std::string object, text;
	bool repairable;
};

struct Kel {
	std::string uuid, tenant, name, l2type, id, numbers;
	bool readable = true;  // false: what it holds is not known
	std::string label() const { return "kel " + tenant + "/" + name; }
};

struct Port {
	std::string uuid, keluuid, name, addr, mac;
	bool readable = true;
};

// A column as text ("" for NULL).
std::string col(const kel::Statement &st, int i)
{
	return st.text(i) != nullptr ? st.text(i) : "";
}

// A property of a stored property string; false when the string does not read.
bool props_of(const std::string &text, std::map<std::string, std::string> *out)
{
	out->clear();
	attrset_t *raw = nullptr;
	if (!text.empty() && kel_str2attrset(text.c_str(), &raw, B_TRUE, ATTRSET_UNIQUE_NAME) != KEL_SUCCESS)
		return false;
	kel::AttrSetPtr set(raw);
	for (attrset_entry_t *e = attrset_next_entry(set.get(), nullptr); e != nullptr;
	     e = attrset_next_entry(set.get(), e)) {
		char *value = nullptr;
		if (attrset_entry_value_string(e, &value) == 0)
			(*out)[attrset_entry_name(e)] = value;
	}
	return true;
}

// The holders of one value, for a problem's text.
std::string joined(const std::vector<std::string> &names)
{
	std::string list;
	for (const std::string &n : names)
		list += (list.empty() ? "" : ", ") + n;
	return list;
}

class Checker {
public:
	explicit Checker(kel_dbhandle_t h) : h_(h), db_(h) {}

	// Checks every invariant and lists a problem for each break; with `repair`, then
	// applies the fixes found, all in one transaction.
	int run(bool repair);
	const std::vector<Problem> &problems() const { return problems_; }

private:
	int read();
	void check_ids(bool vlan);  // the VLAN range (`vlan`) or the VXLAN range
	void check_shares(bool vlan, const ValueSet &range);
	void check_port_numbers();
	void check_ports();
	int check_ipnets();
	void problem(const std::string &object, const std::string &text, bool repairable = false)
	{
		problems_.push_back({object, text, repairable});
	}
	// A repair: one statement, run only when repairing, in the check's transaction.
	void fix(std::string sql, std::vector<std::string> values)
	{
		fixes_.push_back({std::move(sql), std::move(values)});
	}

	kel_dbhandle_t h_;
	kel::Db db_;
	// In the order the store lists them, so that what is reported of several ports is
	// said the same way on both engines.
	const std::string ports_sql_ = kel::schema::in_written_order(db_.pg() != nullptr, "vport_tbl",
	    "vport_uuid, vport_keluuid, vport_name, vport_props");
	std::vector<Problem> problems_;
	std::vector<std::pair<std::string, std::vector<std::string>>> fixes_;
	std::map<std::string, Kel> kels_;  // by UUID
	std::vector<Port> ports_;
	std::map<std::string, std::string> ctrl_;  // the fabric-wide rows
	struct Share {
		std::string pname, host, value, vlan, vxlan;
	};
	std::vector<Share> shares_;
};

int Checker::read()
{
	int rc = kel::for_each_row(db_,
	    "SELECT kel_uuid, kel_tenant_name, kel_name, kel_props, "
	    "kel_vportnum_range FROM kel_tbl",
	    {}, [&](kel::Statement &st) {
		    Kel k{col(st, 0), col(st, 1), col(st, 2), "", "", col(st, 4)};
		    std::map<std::string, std::string> props;
		    k.readable = props_of(col(st, 3), &props);
		    if (!k.readable)
			    problem(k.label(), "its properties do not read: " + col(st, 3));
		    k.l2type = props["l2-type"];
		    k.id = props[k.l2type == "vxlan" ? "vni" : "vlanid"];
		    kels_[k.uuid] = k;
		    return KEL_SUCCESS;
	    });
	if (rc == KEL_SUCCESS)
		rc = kel::for_each_row(db_, ports_sql_.c_str(), {}, [&](kel::Statement &st) {
			Port p{col(st, 0), col(st, 1), col(st, 2), "", ""};
			std::map<std::string, std::string> props;
			p.readable = props_of(col(st, 3), &props);
			if (!p.readable)
				problem("vport " + p.uuid, "its properties do not read: " + col(st, 3));
			p.addr = props["ipaddr"].substr(0, props["ipaddr"].find('/'));
			p.mac = props["macaddr"];
			ports_.push_back(p);
			return KEL_SUCCESS;
		});
	if (rc == KEL_SUCCESS)
		rc = kel::for_each_row(db_,
		    "SELECT ctrl_pname, ifnull(ctrl_host, ''), ifnull(ctrl_pval, ''), "
		    "ctrl_vlan_range, ctrl_vxlan_range FROM ctrl_tbl",
		    {}, [&](kel::Statement &st) {
			    const std::string pname = col(st, 0), host = col(st, 1);
			    if (host.empty())
				    ctrl_[pname] = col(st, 2);
			    if (pname == "uplink-port" || pname == "vxlan-addr")
				    shares_.push_back({pname, host, col(st, 2), col(st, 3), col(st, 4)});
			    return KEL_SUCCESS;
		    });
	return rc;
}

// Each ID range: its free set and the IDs kels hold make up the range exactly.
void Checker::check_ids(bool vlan)
{
	const std::string what = vlan ? "VLAN IDs" : "VNIs";
	const std::string pname = vlan ? "vlan-range" : "vxlan-range";
	ValueSet range(KEL_RANGE_NUMBER), avail(KEL_RANGE_NUMBER), held(KEL_RANGE_NUMBER);
	if (!ValueSet::parse(ctrl_[pname].c_str(), KEL_RANGE_NUMBER, &range)) {
		problem(pname, "the range does not read: " + ctrl_[pname]);
		return;
	}
	if (!ValueSet::parse(ctrl_[pname + "-avail"].c_str(), KEL_RANGE_NUMBER, &avail)) {
		problem(pname, "its free set does not read: " + ctrl_[pname + "-avail"]);
		return;
	}
	// While a kel's properties do not read, what it holds is unknown: nothing is put back.
	bool known = true;
	std::map<Value, std::vector<std::string>> holders;
	for (const auto &[uuid, k] : kels_) {
		known = known && k.readable;
		if (k.l2type != (vlan ? "vlan" : "vxlan"))
			continue;
		Value id;
		if (!ValueSet::value_of(k.id, KEL_RANGE_NUMBER, &id)) {
			problem(k.label(), "a " + k.l2type + " kel without a valid ID: '" + k.id + "'");
			continue;
		}
		holders[id].push_back(k.tenant + "/" + k.name);
		held.add(id);
	}
	for (const auto &[id, names] : holders) {
		ValueSet one(KEL_RANGE_NUMBER);
		one.add(id);
		if (names.size() > 1)
			problem(pname, what + " " + one.text() + " held by more than one kel: " + joined(names));
	}
	if (const ValueSet outside = held.minus(range); !outside.empty())
		problem(pname, what + " held by kels outside the range: " + outside.text());
	const ValueSet expected = range.minus(held);
	if (const ValueSet leaked = expected.minus(avail); !leaked.empty())
		problem(pname, what + " neither free nor held by a kel: " + leaked.text(), known);
	if (const ValueSet both = avail.intersect(held); !both.empty())
		problem(pname, what + " held by kels but free as well: " + both.text(), known);
	if (const ValueSet stray = avail.minus(range).minus(held); !stray.empty())
		problem(pname, what + " free outside the range: " + stray.text(), known);
	if (known && !(expected == avail))
		fix("UPDATE ctrl_tbl SET ctrl_pval = ? WHERE ctrl_pname = ? AND ifnull(ctrl_host, '') = ''",
		    {expected.text(), pname + "-avail"});
	check_shares(vlan, range);
}

// The hosts' shares of a range: within it, and apart for one host's rows of one kind.
void Checker::check_shares(bool vlan, const ValueSet &range)
{
	std::map<std::string, ValueSet> taken;  // by host and property
	for (const Share &s : shares_) {
		const std::string &text = vlan ? s.vlan : s.vxlan;
		const std::string where = (s.host.empty() ? std::string("fabric") : "host " + s.host) + " " + s.pname +
		    " " + s.value;
		ValueSet share(KEL_RANGE_NUMBER);
		if (!ValueSet::parse(text.c_str(), KEL_RANGE_NUMBER, &share)) {
			problem(where, "its share does not read: " + text);
			continue;
		}
		if (const ValueSet outside = share.minus(range); !outside.empty())
			problem(where,
			    std::string(vlan ? "VLAN IDs" : "VNIs") +
			        " of its share outside the range: " + outside.text());
		ValueSet &mine = taken.try_emplace(s.host + "\n" + s.pname, KEL_RANGE_NUMBER).first->second;
		if (const ValueSet twice = mine.intersect(share); !twice.empty())
			problem(where,
			    std::string(vlan ? "VLAN IDs" : "VNIs") + " shared with another " + s.pname +
			        " of the same host: " + twice.text());
		mine = mine.unite(share);
	}
}

// Each kel's free system port numbers and the numbers its system ports hold make up
// all numbers.
void Checker::check_port_numbers()
{
	ValueSet all(KEL_RANGE_NUMBER);
	(void)ValueSet::parse(kAllVportNumbers, KEL_RANGE_NUMBER, &all);
	std::map<std::string, ValueSet> held;
	for (const Port &p : ports_) {
		Value n;
		if (p.name.rfind(kSysVportPrefix, 0) == 0 &&
		    ValueSet::value_of(p.name.substr(sizeof(kSysVportPrefix) - 1), KEL_RANGE_NUMBER, &n))
			held.try_emplace(p.keluuid, KEL_RANGE_NUMBER).first->second.add(n);
	}
	for (const auto &[uuid, k] : kels_) {
		ValueSet free(KEL_RANGE_NUMBER);
		if (!ValueSet::parse(k.numbers.c_str(), KEL_RANGE_NUMBER, &free)) {
			problem(k.label(), "its free system port numbers do not read: " + k.numbers);
			continue;
		}
		const auto it = held.find(uuid);
		const ValueSet mine = it != held.end() ? it->second : ValueSet(KEL_RANGE_NUMBER);
		const ValueSet expected = all.minus(mine);
		if (const ValueSet leaked = expected.minus(free); !leaked.empty())
			problem(k.label(), "system port numbers neither free nor used: " + leaked.text(), true);
		if (const ValueSet both = free.intersect(mine); !both.empty())
			problem(k.label(), "system port numbers used but free as well: " + both.text(), true);
		if (!(expected == free))
			fix("UPDATE kel_tbl SET kel_vportnum_range = ? WHERE kel_uuid = ?", {expected.text(), uuid});
	}
}

// Every port belongs to a kel; no MAC address is held twice, however it is spelled.
void Checker::check_ports()
{
	std::map<std::string, std::vector<std::string>> macs;  // by canonical spelling
	for (const Port &p : ports_) {
		const auto k = kels_.find(p.keluuid);
		if (k == kels_.end()) {
			problem("vport " + p.uuid, "port " + p.name + " belongs to no kel (" + p.keluuid + ")", true);
			fix("DELETE FROM vport_tbl WHERE vport_uuid = ?", {p.uuid});
			continue;
		}
		const std::string label = k->second.tenant + "/" + k->second.name + "/" + p.name;
		if (p.mac.empty())
			continue;
		uint8_t bytes[6];
		char canonical[18];
		if (kel_parse_port_mac(p.mac.c_str(), bytes, canonical) != KEL_SUCCESS) {
			problem("vport " + label, "its MAC address " + p.mac + " is not a unicast Ethernet address");
			continue;
		}
		macs[canonical].push_back(label);
	}
	for (const auto &[mac, holders] : macs)
		if (holders.size() > 1)
			problem("MAC " + mac, "held by more than one port: " + joined(holders));
}

// Each network: its free addresses are its span less the router and what its ports
// hold, and its free pool addresses the same within the pool.
int Checker::check_ipnets()
{
	std::map<std::string, int> per_kel;
	return kel::for_each_row(db_, "SELECT * FROM ipnet_tbl", {}, [&](kel::Statement &st) {
		const std::string uuid = col(st, schema::kIpnetUuid), keluuid = col(st, schema::kIpnetKeluuid);
		const auto k = kels_.find(keluuid);
		if (k == kels_.end()) {
			problem("ipnet " + uuid,
			    "network " + col(st, schema::kIpnetName) + " belongs to no kel (" + keluuid + ")", true);
			fix("DELETE FROM ipnet_tbl WHERE ipnet_uuid = ?", {uuid});
			return KEL_SUCCESS;
		}
		const std::string label = "ipnet " + k->second.tenant + "/" + k->second.name + "/" +
		    col(st, schema::kIpnetName);
		if (++per_kel[keluuid] == 2)
			problem(k->second.label(), "more than one network");
		const int type = st.integer(schema::kIpnetAf) == 2 ? KEL_RANGE_IPV4 : KEL_RANGE_IPV6;
		std::map<std::string, std::string> props;
		Value start, end;
		if (!props_of(col(st, schema::kIpnetProps), &props) ||
		    !ValueSet::value_of(col(st, schema::kIpnetStart), type, &start) ||
		    !ValueSet::value_of(col(st, schema::kIpnetEnd), type, &end)) {
			problem(label, "its properties or span do not read");
			return KEL_SUCCESS;
		}
		ValueSet span(type), router(type), pool(type), held(type), avail(type), avail_pool(type);
		span.add(start, end);
		Value r;
		if (ValueSet::value_of(props["defrouter"], type, &r) && r != 0)
			router.add(r);
		if (!ValueSet::parse(props.count("pool") ? props["pool"].c_str() : nullptr, type, &pool) ||
		    !ValueSet::parse(col(st, schema::kIpnetAvailRange).c_str(), type, &avail) ||
		    !ValueSet::parse(col(st, schema::kIpnetAvailPoolRange).c_str(), type, &avail_pool)) {
			problem(label, "its pool or free addresses do not read");
			return KEL_SUCCESS;
		}
		if (!props.count("pool"))
			pool = span.minus(router);  // a network without a pool is all pool
		bool known = true;                  // false while a port's properties do not read
		std::map<Value, std::vector<std::string>> holders;
		for (const Port &p : ports_) {
			Value a;
			if (p.keluuid == keluuid)
				known = known && p.readable;
			if (p.keluuid != keluuid || p.addr.empty())
				continue;
			if (!ValueSet::value_of(p.addr, type, &a) || !span.has(a)) {
				problem(label, "port " + p.name + " holds " + p.addr + ", outside the network");
				continue;
			}
			holders[a].push_back(p.name);
			held.add(a);
		}
		for (const auto &[a, names] : holders) {
			ValueSet one(type);
			one.add(a);
			if (names.size() > 1)
				problem(label,
				    "address " + one.text() + " held by more than one port: " + joined(names));
		}
		const ValueSet expected = span.minus(router).minus(held);
		const ValueSet expected_pool = pool.intersect(span).minus(router).minus(held);
		if (const ValueSet leaked = expected.minus(avail); !leaked.empty())
			problem(label, "addresses neither free nor held by a port: " + leaked.text(), known);
		if (const ValueSet extra = avail.minus(expected); !extra.empty())
			problem(label, "addresses free that are held, the router or outside the span: " + extra.text(),
			    known);
		if (const ValueSet leaked = expected_pool.minus(avail_pool); !leaked.empty())
			problem(label, "pool addresses neither free nor held by a port: " + leaked.text(), known);
		if (const ValueSet extra = avail_pool.minus(expected_pool); !extra.empty())
			problem(label,
			    "free pool addresses that are held, the router or outside the pool: " + extra.text(),
			    known);
		if (known && (!(expected == avail) || !(expected_pool == avail_pool)))
			fix("UPDATE ipnet_tbl SET ipnet_avail_range = ?, ipnet_avail_pool_range = ? WHERE ipnet_uuid = ?",
			    {expected.text(), expected_pool.text(), uuid});
		return KEL_SUCCESS;
	});
}

int Checker::run(bool repair)
{
	// Read under the lock; the repairs, when asked for, are written in one transaction.
	kel::WriteScope write(h_);
	int rc = write.locked();
	if (rc != KEL_SUCCESS)
		return rc;
	std::string version = "<none>";
	rc = kel::for_each_row(db_, "SELECT misc_value FROM misc_tbl WHERE misc_name = 'db-version'", {},
	    [&](kel::Statement &st) {
		    version = col(st, 0);
		    return KEL_SUCCESS;
	    });
	if (rc != KEL_SUCCESS)
		return rc;
	if (version != "3") {
		// The other checks read the version-3 layout.
		problem("store", "schema version " + version + ", not 3: run keladm upgrade-store");
		return KEL_SUCCESS;
	}
	if ((rc = read()) != KEL_SUCCESS)
		return rc;
	check_ids(true);
	check_ids(false);
	check_port_numbers();
	check_ports();
	if ((rc = check_ipnets()) != KEL_SUCCESS || !repair || fixes_.empty())
		return rc;
	if ((rc = write.begin()) != KEL_SUCCESS)
		return rc;
	for (const auto &[sql, values] : fixes_) {
		kel::Statement st;
		rc = st.prepare(db_, sql.c_str());
		for (size_t i = 0; rc == KEL_SUCCESS && i < values.size(); i++)
			rc = st.bind_text(static_cast<int>(i + 1), values[i].c_str());
		if (rc == KEL_SUCCESS && (rc = st.step()) == KEL_E_CONTINUE)
			rc = KEL_SUCCESS;
		if (rc != KEL_SUCCESS)
			return rc;
	}
	return write.commit();
}

void free_problem(kel_store_problem_t *p)
{
	std::free(p->esp_text);
	std::free(p);
}

}  // namespace

extern "C" {

int kel_db_check_store(kel_dbhandle_t h, uint32_t flags, list_t *problems) noexcept
{
	if (h == nullptr || problems == nullptr)
		return KEL_E_INVALID_ARGS;
	const bool repair = (flags & KEL_CHECK_REPAIR) != 0;
	// Only a repair changes anything: a check alone is no change to record.
	size_t repaired = 0;
	const auto check = [&] {
		Checker checker(h);
		const int rc = checker.run(repair);
		if (rc != KEL_SUCCESS)
			return rc;
		kel::RecordList<kel_store_problem_t> built;
		for (const Problem &p : checker.problems()) {
			kel_store_problem_t *rec = built.append();
			if (rec == nullptr || (rec->esp_text = strdup(p.text.c_str())) == nullptr)
				return KEL_E_NOMEM;
			kel::copy_text(rec->esp_object, p.object.c_str(), sizeof(rec->esp_object));
			rec->esp_repaired = repair && p.repairable ? B_TRUE : B_FALSE;
			repaired += rec->esp_repaired ? 1 : 0;
		}
		built.release(problems);
		return KEL_SUCCESS;
	};
	if (!repair)
		return kel::c_boundary(check);
	return kel::audit::logged(
	    [&] {
		    return kel::audit::Change{"repair-store", "", "store", std::to_string(repaired) + " put back"};
	    },
	    check);
}

void kel_free_problemlist(list_t *problems) noexcept
{
	if (problems == nullptr)
		return;
	while (auto *p = static_cast<kel_store_problem_t *>(list_remove_head(problems)))
		free_problem(p);
	list_destroy(problems);
}

}  // extern "C"
