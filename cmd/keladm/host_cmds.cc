// Hosts' daemons: show-host asks keld how it is, here and, on the controller, on every
// host the fabric knows.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "keladm.h"
#include "owners.h"

namespace keladm {
namespace {

// At most this many hosts are asked at once: each answer mostly waits on the network.
constexpr size_t kAskedAtOnce = 16;

struct HostRow {
	std::string host;
	int rc = KEL_SUCCESS;  // why the host's keld did not answer
	kel_hostinfo_t info{};
};

// Field `field` of kHostFields for `row`.
std::string host_field(const HostRow &row, size_t field)
{
	const kel_hostinfo_t &i = row.info;
	const bool up = row.rc == KEL_SUCCESS, checked = up && i.ehi_controller_rc != KEL_E_NOTSUP;
	switch (field) {
	case 0: return row.host;
	case 1: return up ? "yes" : "no";
	case 2: return up ? i.ehi_version : "";
	case 3: return up ? std::to_string(i.ehi_uptime) : "";
	case 4: return up ? std::to_string(i.ehi_reloads) : "";
	case 5: return up ? i.ehi_controller : "";
	case 6: return !checked ? "" : i.ehi_controller_rc == KEL_SUCCESS ? "yes" : "no";
	default:
		if (!up)
			return message(row.rc);
		return checked && i.ehi_controller_rc != KEL_SUCCESS ? "controller: " + message(i.ehi_controller_rc)
		                                                     : "";
	}
}

// Asks the keld at the other end of `conn` (opened with code `opened`) into `row`; with
// `check`, whether it reaches its controller too.
void ask(int opened, nuq_conn_t *raw, HostRow *row, bool check = true)
{
	const kel::Owned<nuq_conn_t, nuq_disconnect> conn(raw);
	row->rc = opened != KEL_SUCCESS ? opened
	                                : kel_get_hostinfo(conn.get(), check ? KEL_HOSTINFO_CHECK : 0, &row->info);
}

// Asks each host of `rows` through the controller's way of reaching it, several at once.
// Each asker opens the store for itself: a handle serves one thread at a time.
void ask_hosts(std::span<HostRow> rows, bool check = true)
{
	for (size_t first = 0; first < rows.size(); first += kAskedAtOnce) {
		std::vector<std::thread> askers;
		for (size_t i = first; i < std::min(rows.size(), first + kAskedAtOnce); i++)
			askers.emplace_back([&row = rows[i], check] {
				kel::StoreHandle store;
				nuq_conn_t *conn = nullptr;
				int rc = open_store(&store, false, false);
				if (rc == KEL_SUCCESS)
					rc = kel_nuq_connection_to_kelnode(store.get(), row.host.c_str(), &conn);
				ask(rc, conn, &row, check);
			});
		for (std::thread &t : askers)
			t.join();
	}
}

// The hosts the store knows: those with settings of their own and those ports are bound on.
int known_hosts(kel_dbhandle_t h, std::set<std::string> *out)
{
	kel::RecordList<kel_ctrlprop_t> props;
	if (int rc = props.read([&](list_t *l) { return kel_db_get_ctrlprop(h, nullptr, nullptr, l); });
	    rc != KEL_SUCCESS)
		return rc;
	for (kel_ctrlprop_t *p : props)
		if (*p->ecp_host != '\0')
			out->insert(p->ecp_host);
	auto added = [](const char *host, void *arg) {
		static_cast<std::set<std::string> *>(arg)->insert(host);
		return 0;
	};
	if (int rc = kel_db_walk_hosts(h, added, out); rc != KEL_SUCCESS)
		return rc;
	auto each = [](const kel_vport_t *vp, void *arg) {
		if (vp->evp_status == VPORT_STATUS_USED && *vp->evp_hostname != '\0')
			static_cast<std::set<std::string> *>(arg)->insert(vp->evp_hostname);
		return 0;
	};
	const int rc = kel_db_walk_vports(h, nullptr, KEL_WALK_NO_PROPS, each, out);
	return rc == KEL_E_VPORT_NOTFOUND ? KEL_SUCCESS : rc;
}

}  // namespace

std::vector<std::string> hosts_not_answering(const std::set<std::string> &hosts)
{
	std::vector<HostRow> rows;
	for (const std::string &h : hosts)
		rows.push_back({h});
	ask_hosts(rows, false);
	std::vector<std::string> out;
	for (const HostRow &row : rows)
		if (row.rc != KEL_SUCCESS)
			out.push_back(row.host);
	return out;
}

void say_silent_hosts(kel_dbhandle_t h, const Options &opts, const std::string &kel, const std::string &vport,
    const char *redo)
{
	char filter[KEL_FILTER_LEN];
	if (kel_create_attrstr(filter, sizeof(filter), nullptr, 3, "tenant", opts.tenant.c_str(), "kel", kel.c_str(),
	        "vport", vport.c_str()) != KEL_SUCCESS)
		return;
	std::set<std::string> hosts;
	auto each = [](const kel_vport_t *vp, void *arg) {
		if (vp->evp_status == VPORT_STATUS_USED)
			static_cast<std::set<std::string> *>(arg)->insert(vp->evp_hostname);
		return 0;
	};
	if (kel_db_walk_vports(h, filter, KEL_WALK_NO_PROPS, each, &hosts) != KEL_SUCCESS || hosts.empty())
		return;
	const std::vector<std::string> silent = hosts_not_answering(hosts);
	std::string list;
	for (const std::string &host : silent)
		list += (list.empty() ? "" : ", ") + host;
	if (silent.empty())
		std::fprintf(stderr,
		    "keladm: every host of it answers now: a host's link refused the change (its keld's "
		    "log says why)\n");
	else
		std::fprintf(stderr, "keladm: host%s that did not answer: %s; %s once %s back\n",
		    silent.size() > 1 ? "s" : "", list.c_str(), redo, silent.size() > 1 ? "they are" : "it is");
}

int add_host(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 1)
		return usage_error(cmd, "add-host takes one HOST");
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	const int rc = kel_db_add_host(store.get(), opts.operands[0]);
	if (rc == KEL_E_EXISTS && opts.may_exist)
		return kExitOk;
	return rc == KEL_SUCCESS ? kExitOk : fail(std::string("cannot add host '") + opts.operands[0] + "'", rc);
}

int remove_host(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 1)
		return usage_error(cmd, "remove-host takes one HOST");
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	const int rc = kel_db_remove_host(store.get(), opts.operands[0]);
	if (rc == KEL_E_NOTFOUND && opts.if_exists)
		return kExitOk;
	return rc == KEL_SUCCESS ? kExitOk : fail(std::string("cannot remove host '") + opts.operands[0] + "'", rc);
}

int show_host(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	if (opts.operands.size() > 1)
		return usage_error(cmd, "show-host takes at most one host");
	std::vector<HostRow> rows;
	if (!opts.operands.empty()) {
		// Another host is reached the way the controller reaches it.
		if (!kel_db_exists())
			return fail("cannot reach host '" + std::string(opts.operands[0]) +
			        "': only the controller knows how; run show-host there, or without a host here",
			    KEL_E_NOTFOUND);
		rows.push_back({opts.operands[0]});
		ask_hosts(rows);
	} else {
		HostRow self;
		nuq_conn_t *conn = nullptr;
		const int opened = kel_nuq_connection_to_self(&conn);
		ask(opened, conn, &self);
		self.host = self.rc == KEL_SUCCESS ? self.info.ehi_host : "localhost";
		rows.push_back(self);
		if (kel_db_exists()) {
			kel::StoreHandle store;
			if (open_store(&store, false) != KEL_SUCCESS)
				return kExitFailed;
			std::set<std::string> hosts;
			if (int rc = known_hosts(store.get(), &hosts); rc != KEL_SUCCESS)
				return fail("cannot list the fabric's hosts", rc);
			hosts.erase(self.host);
			for (const std::string &h : hosts)
				rows.push_back({h});
			ask_hosts(std::span<HostRow>(rows).subspan(1));
		}
	}
	for (const HostRow &row : rows)
		out.add_with([&](size_t f) { return host_field(row, f); });
	out.print();
	// A host that does not answer, or cannot reach its controller, is a failure to report.
	const bool sound = std::all_of(rows.begin(), rows.end(), [](const HostRow &r) {
		return r.rc == KEL_SUCCESS &&
		    (r.info.ehi_controller_rc == KEL_SUCCESS || r.info.ehi_controller_rc == KEL_E_NOTSUP);
	});
	return sound ? kExitOk : kExitFailed;
}

}  // namespace keladm
