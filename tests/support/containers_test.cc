#include "support/containers.h"

#include <numeric>
#include <random>

#include "tests/board.h"

namespace {

using Numbers = std::vector<int>;

// Returns an address that holds a number from 0 to 99, for a container to store.
void *at(int number) {
    static int numbers[100];
    numbers[number] = number;
    return &numbers[number];
}

int number(const void *value) { return value != nullptr ? *static_cast<const int *>(value) : -1; }

int matchNumber(const void *value, const void *key) { return number(value) == number(key) ? 0 : 1; }

// The numbers visited so far, and the number whose visit returns 0.
struct Visits {
    int zeroAt = -1;
    Numbers seen = {};
};

int visit(void *value, void *visits) {
    static_cast<Visits *>(visits)->seen.push_back(number(value));
    return number(value) != static_cast<Visits *>(visits)->zeroAt ? 1 : 0;
}

// Returns the content of a list, after checking that all operations that only read agree on it.
Numbers contentOf(ll_list *list) {
    Visits visits;
    const bool walked = ll_traverse(list, 1, visit, &visits) != 0;
    EXPECT_EQ(walked, !visits.seen.empty());
    EXPECT_EQ(ll_count(list), static_cast<int>(visits.seen.size()));
    EXPECT_EQ(ll_is_empty(list) != 0, visits.seen.empty());
    EXPECT_EQ(number(dq_peek(list)), visits.seen.empty() ? -1 : visits.seen.front());
    EXPECT_EQ(number(dq_peek_tail(list)), visits.seen.empty() ? -1 : visits.seen.back());
    ll_node *cursor = nullptr;
    for (const int value : visits.seen) {
        EXPECT_EQ(ll_get(list, &cursor, 1), at(value));
        EXPECT_EQ(ll_find(list, at(value), 1, matchNumber), at(value));
    }
    EXPECT_EQ(ll_get(list, &cursor, 1), nullptr);
    return visits.seen;
}

TEST(Containers, AListIsADequeToo) {
    ll_list *const list = ll_init();
    EXPECT_EQ(contentOf(list), Numbers{});
    for (const int i : {2, 3, 4, 5}) EXPECT_EQ(ll_append(list, at(i)), list);
    EXPECT_EQ(ll_insert_head(list, at(1)), list);
    for (int a = 1; a <= 5; ++a) {
        for (int b = 1; b <= 5; ++b) {
            Numbers expected = {1, 2, 3, 4, 5};
            std::iter_swap(&expected[a - 1], &expected[b - 1]);
            EXPECT_EQ(ll_swap(list, at(a), at(b), 1, matchNumber), 0);
            EXPECT_EQ(contentOf(list), expected) << a << b;
            EXPECT_EQ(ll_swap(list, at(a), at(b), 1, matchNumber), 0);
        }
    }
    EXPECT_EQ(ll_swap(list, at(1), at(9), 1, matchNumber), -1);
    Visits visits = {2};
    EXPECT_EQ(ll_traverse(list, 1, visit, &visits), 0);
    EXPECT_EQ(visits.seen, Numbers({1, 2})) << "ends at the visit that returns 0";
    EXPECT_EQ(ll_delete(list, at(9), matchNumber), nullptr);
    EXPECT_EQ(dq_pop(list), at(1));
    EXPECT_EQ(ll_delete(list, at(3), matchNumber), at(3));
    EXPECT_EQ(contentOf(list), Numbers({2, 4, 5}));
    EXPECT_EQ(dq_pop_tail(list), at(5));
    EXPECT_EQ(ll_delete(list, at(4), matchNumber), at(4)) << "the tail";
    EXPECT_EQ(contentOf(list), Numbers{2});
    EXPECT_EQ(dq_pop_tail(list), at(2));
    EXPECT_EQ(dq_pop(list), dq_pop_tail(list));
    EXPECT_EQ(contentOf(list), Numbers{});
    ll_append(list, at(1));
    ll_free(list);
    for (auto *take : {ll_head, ll_tail, ll_delete_head, ll_delete_tail}) EXPECT_EQ(take(nullptr), nullptr);
}

// Compares by the tens digit, so that equal values can be told apart.
int compareTens(const void *a, const void *b) {
    const int left = number(a) / 10, right = number(b) / 10;
    return (left > right) - (left < right);
}

using Tree = std::unique_ptr<bt_tree, decltype(&bt_free)>;

Tree treeOf(const Numbers &numbers) {
    Tree tree = {bt_init(compareTens), bt_free};
    for (const int i : numbers) EXPECT_EQ(bt_add(tree.get(), at(i)), tree.get());
    return tree;
}

Numbers walk(bt_tree *tree, int order) {
    Visits visits;
    EXPECT_EQ(bt_traverse(tree, 1, order, visit, &visits), nullptr);
    return visits.seen;
}

TEST(Containers, ATreeIsBuiltAtItsRootAndTakenApart) {
    // The inserted numbers, and the tree in pre-order. The newest number is the root; everything that does not sort
    // after it is on its left.
    const std::pair<Numbers, Numbers> shapes[] = {{{50, 30, 80, 60}, {60, 30, 50, 80}},
                                                  {{10, 20, 11, 30, 12, 21}, {21, 12, 11, 10, 20, 30}}};
    for (const auto &[inserted, shape] : shapes) EXPECT_EQ(walk(treeOf(inserted).get(), BT_PRE_ORDER), shape);
    std::mt19937 random(2);
    Numbers all(90);
    std::iota(all.begin(), all.end(), 10);
    for (int round = 0; round < 100; ++round) {
        std::shuffle(all.begin(), all.end(), random);
        const Numbers numbers(all.begin(), all.begin() + round % 40);
        const Tree tree = treeOf(numbers);
        Numbers left = walk(tree.get(), BT_IN_ORDER);
        for (const int key : numbers) {
            ASSERT_EQ(std::tuple(bt_count(tree.get()), number(bt_min(tree.get())), number(bt_max(tree.get()))),
                      std::tuple(static_cast<int>(left.size()), left.front(), left.back()));
            const int found = number(bt_find(tree.get(), at(key), 1));
            ASSERT_EQ(found / 10, key / 10);
            ASSERT_EQ(number(bt_delete(tree.get(), at(key))), found);
            left.erase(std::find(left.begin(), left.end(), found));
            ASSERT_EQ(walk(tree.get(), BT_IN_ORDER), left);
        }
        EXPECT_EQ(bt_delete(tree.get(), at(1)), bt_min(tree.get()));
        EXPECT_EQ(bt_count(tree.get()), bt_height(tree.get()));
    }
}

// Walks a tree with 60 at the root, 30 (with 50 on its right) and 80 in every order, with and without a visit that
// returns 0.
TEST(Containers, ATreeIsWalkedInEveryOrderAndPruned) {
    const std::tuple<int, int, Numbers, int> cases[] = {
        {BT_PRE_ORDER, 30, {60, 30, 80}, -1},         {BT_PRE_ORDER, 60, {60}, 60},
        {BT_IN_ORDER, 30, {30, 60, 80}, -1},          {BT_IN_ORDER, 60, {30, 50, 60}, 60},
        {BT_POST_ORDER, 30, {50, 30, 80, 60}, -1},    {BT_POST_ORDER, 60, {50, 30, 80, 60}, 60},
        {BT_REVERSE_IN_ORDER, 60, {80, 60}, 60},      {BT_REVERSE_IN_ORDER, -1, {80, 60, 50, 30}, -1},
        {BT_BREADTH_FIRST, -1, {60, 30, 80, 50}, -1}, {BT_BREADTH_FIRST, 30, {60, 30}, -1},
        {BT_REVERSE_IN_ORDER + 1, -1, {}, -1},        {BT_PRE_ORDER - 1, -1, {}, -1}};
    for (const auto &[order, zeroAt, seen, result] : cases) {
        const auto traverse = [&, order = order, zeroAt = zeroAt] {
            const Tree tree = treeOf({50, 30, 80, 60});
            EXPECT_EQ(bt_height(tree.get()), 3);
            Visits visits = {zeroAt};
            EXPECT_EQ(number(bt_traverse(tree.get(), 1, order, visit, &visits)), result) << order;
            EXPECT_EQ(visits.seen, seen) << "order " << order << ", 0 at " << zeroAt;
            const bool stopped = order == BT_BREADTH_FIRST && zeroAt >= 0;
            EXPECT_EQ(pthread_mutex_trylock(&tree->lock) != 0, stopped) << "left locked";
            pthread_mutex_unlock(&tree->lock);
        };
        // In a child, which ends without the leak check, since a walk that ends early does not free its queue.
        EXPECT_EQ(board::wait(board::fork(traverse)), 0);
    }
}

// The visit of the first value adds a value, which becomes the root; the visit of the old root returns 0.
TEST(Containers, AWalkReturnsTheRootThatItBeganWith) {
    const Tree tree = treeOf({10, 20});
    const container_visit add = [](void *value, void *grown) {
        if (number(value) == 10) bt_add(static_cast<bt_tree *>(grown), at(30));
        return number(value) == 20 ? 0 : 1;
    };
    EXPECT_EQ(number(bt_traverse(tree.get(), 0, BT_POST_ORDER, add, tree.get())), 20);
}

}  // namespace
