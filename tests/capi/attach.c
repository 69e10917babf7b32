/*
 * A hypervisor tool's attach and detach, written against the installed headers only:
 *   attach KEL VPORT VNIC
 * makes VNIC on VPORT of KEL in one call (bound, made over the kel's link with the port's
 * MAC address and link properties), reports the binding, the VNIC's MTU and counters,
 * then removes it and releases the port in one call. Prints what it did; exits 1 at the
 * first fault.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <kel/libkel_node.h>

/* Whether two MAC address texts name the same address, however they are written. */
static int same_mac(const char *a, const char *b)
{
	unsigned x[6], y[6];
	int i;

	if (a == NULL || b == NULL || sscanf(a, "%x:%x:%x:%x:%x:%x", &x[0], &x[1], &x[2], &x[3], &x[4], &x[5]) != 6 ||
	    sscanf(b, "%x:%x:%x:%x:%x:%x", &y[0], &y[1], &y[2], &y[3], &y[4], &y[5]) != 6)
		return 0;
	for (i = 0; i < 6; i++)
		if (x[i] != y[i])
			return 0;
	return 1;
}

static int fail(const char *what, int code)
{
	char msg[256];
	fprintf(stderr, "attach: %s: %s\n", what, kel_errmsg(code, msg, sizeof(msg)));
	return 1;
}

int main(int argc, char **argv)
{
	const char *kel, *vport, *vnic;
	kel_vnic_t made;
	kelcntl_VPortInfo **ports = NULL;
	const kelcntl_VPortInfo *bound;
	const char *mac;
	char cmd[256], seen[32] = "";
	FILE *f;
	nuq_conn_t *conn = NULL;
	link_stat_t st;
	int count = 0, rc;

	if (argc != 4) {
		fprintf(stderr, "usage: attach KEL VPORT VNIC\n");
		return 2;
	}
	kel = argv[1];
	vport = argv[2];
	vnic = argv[3];

	rc = kel_vnic_create(NULL, kel, vport, vnic, "vmid=attach-test", WEXO_VNIC_MACVLAN, 0, &made);
	if (rc != KEL_SUCCESS)
		return fail("create", rc);
	bound = made.kv_implinfo->ekelii_kelinfo->ekeli_vports[0];
	mac = kel_propattrset_lookup(bound->evpi_props, bound->evpi_props_count, "macaddr");
	printf("bound %s of %s, lower link %s, MTU %u\n", bound->evpi_name,
	    made.kv_implinfo->ekelii_kelinfo->ekeli_name, made.kv_lowername, made.kv_mtu);
	/* What the caller can see of it with the system's own tools. */
	snprintf(cmd, sizeof(cmd), "/sys/class/net/%s/address", vnic);
	if ((f = fopen(cmd, "r")) != NULL) {
		if (fgets(seen, sizeof(seen), f) == NULL)
			seen[0] = '\0';
		fclose(f);
	}
	printf("%s\n", same_mac(seen, mac) ? "the port's MAC address" : "another MAC address");
	snprintf(cmd, sizeof(cmd), "ip -d link show %s | grep -o 'local [0-9.a-f:]*'", made.kv_lowername);
	if (system(cmd) != 0)
		printf("no local address\n");
	fflush(stdout);

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

	kel_vnic_free(&made);
	if ((rc = kel_vnic_remove(vnic, NULL, 0)) != KEL_SUCCESS)
		return fail("remove", rc);
	if ((rc = kel_vnic_remove(vnic, NULL, 0)) != KEL_E_VPORT_NOTFOUND)
		return fail("removing it twice", rc == KEL_SUCCESS ? KEL_E_FAILED : rc);
	printf("released\n");
	return 0;
}
