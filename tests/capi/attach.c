/*
 * A hypervisor tool's attach and detach, written against the installed headers only:
 *   attach KEL VPORT VNIC
 * binds VPORT of KEL to a new VNIC (a macvlan over the returned link, with the port's MAC
 * address and link properties), reports the binding and the VNIC's counters, then
 * removes the VNIC and releases the port. Prints what it did; exits 1 at the first fault.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <libkel_node.h>

static int fail(const char *what, int code)
{
	char msg[256];
	fprintf(stderr, "attach: %s: %s\n", what, kel_errmsg(code, msg, sizeof(msg)));
	return 1;
}

static int sh(const char *fmt, const char *a, const char *b)
{
	char cmd[512];
	snprintf(cmd, sizeof(cmd), fmt, a, b);
	return system(cmd) == 0;
}

int main(int argc, char **argv)
{
	const char *kel, *vport, *vnic;
	wexo_handle_t h = NULL;
	wexo_arg_list_t *props = NULL;
	kelcntl_KELImplInfo *info = NULL;
	kelcntl_VPortInfo **ports = NULL;
	kelcntl_VPortInfo *bound;
	datalink_id_t lower = DATALINK_INVALID_LINKID, id = DATALINK_INVALID_LINKID;
	datalink_class_t cls;
	char lowername[MAXLINKNAMELEN];
	const char *mac;
	nuq_conn_t *conn = NULL;
	link_stat_t st;
	uint_t i;
	int count = 0, rc;

	if (argc != 4) {
		fprintf(stderr, "usage: attach KEL VPORT VNIC\n");
		return 2;
	}
	kel = argv[1];
	vport = argv[2];
	vnic = argv[3];
	if ((rc = wexo_open(&h)) != WEXO_STATUS_OK)
		return fail("datalink handle", rc * 256 + KEL_E_WEXO);

	rc = kel_connect_vnic(h, NULL, kel, vport, vnic, &props, NULL, &lower, &info, 0);
	if (rc != KEL_SUCCESS)
		return fail("connect", rc);
	if ((rc = wexo_datalink_id2info(h, lower, NULL, &cls, NULL, lowername, sizeof(lowername))) != 0)
		return fail("lower link", rc * 256 + KEL_E_WEXO);
	bound = info->ekelii_kelinfo->ekeli_vports[0];
	mac = kel_propattrset_lookup(bound->evpi_props, bound->evpi_props_count, "macaddr");
	printf("bound %s of %s, lower link %s (%s)\n", bound->evpi_name, info->ekelii_kelinfo->ekeli_name,
	    lowername, cls == DATALINK_CLASS_VXLAN ? "vxlan" : "uplink");

	/* Where the lower link sends from, for the caller to see. */
	if (!sh("ip -d link show %s | grep -o 'local [0-9.a-f:]*'%s", lowername, ""))
		printf("no local address\n");

	/* The VNIC, as the tool makes it: over the lower link, with the port's address. */
	if (!sh("ip link add %s link %s type macvlan mode bridge", vnic, lowername) ||
	    (mac != NULL && !sh("ip link set %s address %s", vnic, mac)) || !sh("ip link set %s up%s", vnic, ""))
		return fail("making the VNIC", KEL_E_FAILED);
	if ((rc = wexo_name2info(h, vnic, &id, NULL)) != WEXO_STATUS_OK)
		return fail("VNIC", rc * 256 + KEL_E_WEXO);
	for (i = 0; i < wexo_arg_count(props); i++) {
		rc = wexo_set_linkprop(h, id, wexo_arg_name(props, i), wexo_arg_value(props, i));
		if (rc != WEXO_STATUS_OK)
			return fail(wexo_arg_name(props, i), rc * 256 + KEL_E_WEXO);
		printf("set %s=%s\n", wexo_arg_name(props, i), wexo_arg_value(props, i));
	}

	if ((rc = kel_get_vnicinfo(vnic, &ports, &count)) != KEL_SUCCESS)
		return fail("vnic info", rc);
	printf("controller: %d port(s), %s on %s\n", count, count > 0 ? ports[0]->evpi_name : "-",
	    count > 0 ? ports[0]->evpi_hostname : "-");
	kelcntl_VPortInfo_array_free(ports, count);

	if ((rc = kel_nuq_connection_to_controller(&conn)) != KEL_SUCCESS)
		return fail("connection", rc);
	if ((rc = kel_get_vnicstat(conn, vnic, &st)) != KEL_SUCCESS)
		return fail("statistics", rc);
	nuq_disconnect(conn);
	printf("statistics read: %llu packets out\n", (unsigned long long)st.ls_opackets);

	/* Detach: the VNIC goes first, then the port and the link under it. */
	if (!sh("ip link del %s%s", vnic, ""))
		return fail("removing the VNIC", KEL_E_FAILED);
	if ((rc = kel_disconnect_vnic(h, vnic, NULL, lower, 0)) != KEL_SUCCESS)
		return fail("disconnect", rc);
	printf("released\n");
	wexo_free_args(props);
	kelcntl_KELImplInfo_free(info);
	wexo_close(h);
	return 0;
}
