// Datalink administration on rtnetlink: a handle is a netlink socket, a datalink ID is
// the link's ifindex. Everything acts on the network namespace of the calling thread.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

typedef int wexo_status_t;

#define WEXO_SUCCESS		0
#define WEXO_FAILURE		1
#define WEXO_NOTFOUND		2
#define WEXO_NOMEM		3
#define WEXO_BADARG		4
#define WEXO_DENIED		5
#define WEXO_NOTSUP		6
#define WEXO_EXISTS		7

typedef uint32_t datalink_id_t;

// What kind of link: from the kernel's link kind (vxlan; macvlan, macvtap and veth are
// VNICs; everything else counts as physical).
typedef enum {
	DATALINK_CLASS_PHYS = 1,
	DATALINK_CLASS_VNIC = 2,
	DATALINK_CLASS_VXLAN = 3
} datalink_class_t;

typedef struct wexo_handle *wexo_handle_t;

// A link's 64-bit counters.
typedef struct wexo_stats {
	uint64_t ws_rbytes;
	uint64_t ws_ipackets;
	uint64_t ws_ierrors;
	uint64_t ws_obytes;
	uint64_t ws_opackets;
	uint64_t ws_oerrors;
	uint64_t ws_idrops;
	uint64_t ws_odrops;
} wexo_stats_t;

wexo_status_t wexo_open(wexo_handle_t *handlep);
void wexo_close(wexo_handle_t handle);
wexo_status_t wexo_name2info(wexo_handle_t handle, const char *name, datalink_id_t *idp,
    datalink_class_t *classp);
wexo_status_t wexo_datalink_id2info(wexo_handle_t handle, datalink_id_t id,
    datalink_class_t *classp, char *name, size_t namelen);
wexo_status_t wexo_link_stats(wexo_handle_t handle, datalink_id_t id, wexo_stats_t *stats);
// The text of a status, written into `buf` (1024 bytes).
const char *wexo_status2str(int status, char *buf);

}
