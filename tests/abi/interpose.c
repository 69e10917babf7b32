/*
 * A program that defines helpers of its own under names the library exports. The
 * library's own calls must still reach the library's definitions: a caller's
 * list_create or attrset_create running in the middle of a store operation crashed it.
 * Run with KEL_ROOT naming a scratch tree that has etc/kel.
 */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <kel/libkel.h>

#define CHECK_PROGRAM "interpose"
#include "check.h"

static int ours_ran;

/* Deliberately wrong: it initialises nothing. */
void list_create(list_t *list, size_t size, size_t offset)
{
	(void)list;
	(void)size;
	(void)offset;
	ours_ran++;
}

int attrset_create(attrset_t **setp, int flags)
{
	(void)flags;
	*setp = NULL;
	ours_ran++;
	return 12;
}

int main(void)
{
	kel_dbhandle_t h = NULL;
	kel_t *kel = NULL;
	list_t kels;

	CHECK(kel_db_create() == KEL_SUCCESS);
	CHECK(kel_db_open(&h, KEL_DB_READWRITE) == KEL_SUCCESS);
	CHECK(kel_db_create_kel(h, NULL, "web", "l2-type=flat", KEL_NAME_DASH_OK, &kel) == KEL_SUCCESS);
	kel_free_kel(kel);
	CHECK(kel_db_get_filtered_kellist(h, "kel=web", &kels, 0) == KEL_SUCCESS);
	CHECK(kel_list_count(&kels) == 1);
	CHECK(strcmp(((kel_t *)list_head(&kels))->kel_name, "web") == 0);
	kel_free_kellist(&kels);
	kel_db_close(h);
	CHECK(ours_ran == 0);
	puts("interpose: the library called its own helpers");
	return 0;
}
