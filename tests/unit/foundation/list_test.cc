#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include <kel/libkel.h>

namespace {

// The node sits in the middle, so offsets are exercised, not just a leading node.
struct Item {
	int before;
	list_node_t node;
	int value;
};

std::vector<int> values(list_t *list)
{
	std::vector<int> out;
	for (auto *it = static_cast<Item *>(list_head(list)); it != nullptr;
	     it = static_cast<Item *>(list_next(list, it)))
		out.push_back(it->value);
	return out;
}

TEST(List, InsertWalkRemove)
{
	list_t list;
	list_create(&list, sizeof(Item), offsetof(Item, node));
	EXPECT_TRUE(list_is_empty(&list));
	EXPECT_EQ(kel_list_count(&list), 0);
	EXPECT_EQ(list_head(&list), nullptr);
	EXPECT_EQ(list_remove_head(&list), nullptr);

	Item items[4] = {{0, {}, 1}, {0, {}, 2}, {0, {}, 3}, {0, {}, 4}};
	for (Item &it : items)
		list_insert_tail(&list, &it);
	EXPECT_FALSE(list_is_empty(&list));
	EXPECT_EQ(kel_list_count(&list), 4);
	EXPECT_EQ(values(&list), (std::vector<int>{1, 2, 3, 4}));

	list_remove(&list, &items[2]);
	EXPECT_EQ(values(&list), (std::vector<int>{1, 2, 4}));
	list_remove(&list, &items[3]);
	EXPECT_EQ(values(&list), (std::vector<int>{1, 2}));

	EXPECT_EQ(list_remove_head(&list), &items[0]);
	EXPECT_EQ(list_remove_head(&list), &items[1]);
	EXPECT_TRUE(list_is_empty(&list));
	// A removed record can go on a list again.
	list_insert_tail(&list, &items[2]);
	EXPECT_EQ(values(&list), (std::vector<int>{3}));
	list_remove(&list, &items[2]);
	list_destroy(&list);
}

}  // namespace
