// Store rows into records: the row readers and the grouping of joined rows.
#pragma once

#include <string>
#include <unordered_map>

#include <kel/libkel.h>
#include "schema.h"
#include "sql.h"

typedef enum { KEL_VPORTINFO = 1, KEL_IPNETINFO = 2 } kel_infotype_t;

// Column offset of a port or network read behind the switch's columns.
inline constexpr int KEL_TBL_NCOLS = kel::schema::kKelColumns;

// The grouping argument of the switch list's row callback. The index finds a switch
// already on the list by its UUID bytes, so grouping costs O(1) per row.
struct kel_kellist_cbarg_t {
	list_t *evc_list;
	kel_infotype_t evc_infotype;
	std::unordered_map<std::string, kel_t *> evc_index;
};

int kel_dbrow2kel(const kel::Statement &stmt, kel_t **out);
// `with_props` false leaves evp_props NULL: a listing that shows no property skips parsing.
int kel_dbrow2vport(const kel::Statement &stmt, kel_vport_t **out, int offset, bool with_props = true);
int kel_dbrow2ipnet(const kel::Statement &stmt, kel_ipnet_t **out, int offset);
int kel_dbrow2kellist(const kel::Statement &stmt, void *cbarg);
int kel_dbrow2vportlist(const kel::Statement &stmt, void *list);
int kel_dbrow2ipnetlist(const kel::Statement &stmt, void *list);

void kel_create_kellist(list_t *list);
void kel_create_vportlist(list_t *list);
void kel_create_ipnetlist(list_t *list);
void kel_create_proplist(list_t *list);

// The 16 UUID bytes as a map key.
std::string kel_uuid_key(const uuid_t uu);
