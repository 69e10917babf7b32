/*
 * A C caller of the shared object: lists, attribute sets and messages as a C program
 * sees them. Exits non-zero on the first surprise.
 */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <kel/libkel.h>

#define CHECK_PROGRAM "capi smoke"
#include "check.h"

struct rec {
	list_node_t node;
	int value;
};

int main(void)
{
	list_t list;
	struct rec a = {{NULL, NULL}, 1}, b = {{NULL, NULL}, 2};
	attrset_t *set = NULL;
	attrset_entry_t *entry;
	char *value = NULL;
	char buf[64];

	list_create(&list, sizeof(struct rec), offsetof(struct rec, node));
	list_insert_tail(&list, &a);
	list_insert_tail(&list, &b);
	CHECK(kel_list_count(&list) == 2);
	CHECK(((struct rec *)list_head(&list))->value == 1);
	CHECK(list_remove_head(&list) == &a);
	CHECK(list_remove_head(&list) == &b);
	CHECK(list_is_empty(&list));
	list_destroy(&list);

	CHECK(attrset_create(&set, ATTRSET_UNIQUE_NAME) == 0);
	CHECK(attrset_add_string(set, "maxbw", "100M") == 0);
	CHECK(attrset_lookup_string(set, "maxbw", &value) == 0 && strcmp(value, "100M") == 0);
	entry = attrset_next_entry(set, NULL);
	CHECK(entry != NULL && attrset_entry_type(entry) == DATA_TYPE_STRING);
	CHECK(attrset_next_entry(set, entry) == NULL);
	attrset_free(set);

	CHECK(strcmp(kel_errmsg(KEL_E_KEL_NOTFOUND, buf, sizeof(buf)), "kel not found") == 0);
	CHECK(strcmp(kel_errlist[KEL_SUCCESS], "kel operation succeeded") == 0);
	kel_db_close(NULL);
	puts("capi smoke: ok");
	return 0;
}
