// The intrusive doubly linked list: a sentinel node per list, records linked through the
// list_node_t found at the list's offset inside each record.

#include <kel/libkel.h>
#include "kel_assert.h"

namespace {

list_node_t *node_of(const list_t *list, void *object)
{
	return reinterpret_cast<list_node_t *>(static_cast<char *>(object) + list->list_offset);
}

void *object_of(const list_t *list, list_node_t *node)
{
	return reinterpret_cast<char *>(node) - list->list_offset;
}

}  // namespace

extern "C" {

void list_create(list_t *list, size_t size, size_t offset) noexcept
{
	KEL_ASSERT(kel::kAreaCore, offset + sizeof(list_node_t) <= size);
	list->list_size = size;
	list->list_offset = offset;
	list->list_head.list_next = &list->list_head;
	list->list_head.list_prev = &list->list_head;
}

void list_destroy(list_t *list) noexcept
{
	KEL_ASSERT(kel::kAreaCore, list->list_head.list_next == &list->list_head);
	list->list_head.list_next = nullptr;
	list->list_head.list_prev = nullptr;
}

void list_insert_tail(list_t *list, void *object) noexcept
{
	list_node_t *node = node_of(list, object);
	list_node_t *last = list->list_head.list_prev;
	node->list_prev = last;
	node->list_next = &list->list_head;
	last->list_next = node;
	list->list_head.list_prev = node;
}

void *list_head(list_t *list) noexcept
{
	list_node_t *first = list->list_head.list_next;
	return first == &list->list_head ? nullptr : object_of(list, first);
}

void *list_next(list_t *list, void *object) noexcept
{
	list_node_t *next = node_of(list, object)->list_next;
	return next == &list->list_head ? nullptr : object_of(list, next);
}

void list_remove(list_t *list, void *object) noexcept
{
	list_node_t *node = node_of(list, object);
	KEL_ASSERT(kel::kAreaCore, node->list_next != nullptr && node->list_prev != nullptr);
	node->list_prev->list_next = node->list_next;
	node->list_next->list_prev = node->list_prev;
	node->list_next = nullptr;
	node->list_prev = nullptr;
}

void *list_remove_head(list_t *list) noexcept
{
	void *first = list_head(list);
	if (first != nullptr)
		list_remove(list, first);
	return first;
}

int list_is_empty(list_t *list) noexcept
{
	return list->list_head.list_next == &list->list_head;
}

int kel_list_count(list_t *list) noexcept
{
	int count = 0;
	for (void *obj = list_head(list); obj != nullptr; obj = list_next(list, obj))
		count++;
	return count;
}

}  // extern "C"
