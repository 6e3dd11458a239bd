#include "support/containers.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <numeric>
#include <random>

#include "tests/native_board.h"

namespace {

using Numbers = std::vector<int>;

// The address of the number 0 to 99, for a container to hold.
void *at(int number) {
    static int numbers[100];
    numbers[number] = number;
    return &numbers[number];
}

int number(const void *value) { return value != nullptr ? *static_cast<const int *>(value) : -1; }

int matchNumber(const void *value, const void *key) { return number(value) == number(key) ? 0 : 1; }

// Collects the visited numbers, and returns 0 at one of them.
struct Visits {
    int zeroAt = -1;
    Numbers seen = {};
};

int visit(void *value, void *visits) {
    static_cast<Visits *>(visits)->seen.push_back(number(value));
    return number(value) != static_cast<Visits *>(visits)->zeroAt ? 1 : 0;
}

// Thousands of random operations, each compared with the same one on a standard container.
TEST(List, BehavesAsADeque) {
    ll_list *const list = ll_init();
    std::deque<int> model;
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        const int a = static_cast<int>(random() % 10), b = static_cast<int>(random() % 10);
        const auto foundA = std::find(model.begin(), model.end(), a), foundB = std::find(model.begin(), model.end(), b);
        const bool hasA = foundA != model.end(), hasB = foundB != model.end();
        const int front = model.empty() ? -1 : model.front(), back = model.empty() ? -1 : model.back();

        ASSERT_EQ(static_cast<size_t>(ll_count(list)), model.size());
        ASSERT_EQ(ll_is_empty(list) != 0, model.empty());
        ASSERT_EQ(number(dq_peek(list)), front);
        ASSERT_EQ(number(dq_peek_tail(list)), back);
        ASSERT_EQ(number(ll_find(list, at(a), 1, matchNumber)), hasA ? a : -1);
        Visits visits = {a};
        ASSERT_EQ(ll_traverse(list, 1, visit, &visits), !model.empty() && !hasA);
        ASSERT_EQ(visits.seen, Numbers(model.begin(), hasA ? foundA + 1 : foundA));
        ll_node *cursor = nullptr;
        for (const int value : model) ASSERT_EQ(number(ll_get(list, &cursor, 1)), value);
        ASSERT_EQ(ll_get(list, &cursor, 1), nullptr);

        const auto operation = random() % 6;
        if (operation == 0) {
            EXPECT_EQ(ll_append(list, at(a)), list);
            model.push_back(a);
        } else if (operation == 1) {
            EXPECT_EQ(ll_insert_head(list, at(a)), list);
            model.push_front(a);
        } else if (operation == 2) {
            EXPECT_EQ(number(dq_pop(list)), front);
            if (!model.empty()) model.pop_front();
        } else if (operation == 3) {
            EXPECT_EQ(number(dq_pop_tail(list)), back);
            if (!model.empty()) model.pop_back();
        } else if (operation == 4) {
            EXPECT_EQ(number(ll_delete(list, at(a), matchNumber)), hasA ? a : -1);
            if (hasA) model.erase(foundA);
        } else {
            EXPECT_EQ(ll_swap(list, at(a), at(b), 1, matchNumber), hasA && hasB ? 0 : -1);
            if (hasA && hasB) std::iter_swap(foundA, foundB);
        }
    }
    ll_free(list);
}

// Equal by the tens digit, so that equal values can be told apart.
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

// The definition of insertion at the root, in pre-order: the newest is the root; on its left is what does not sort
// behind it, older equals too; and so on.
Numbers shapeOf(Numbers inserted) {
    if (inserted.empty()) return {};
    const int root = inserted.back();
    inserted.pop_back();
    Numbers shape = {root};
    const auto onTheLeft = [&](int value) { return value / 10 <= root / 10; };
    const auto right = std::stable_partition(inserted.begin(), inserted.end(), onTheLeft);
    for (const int value : shapeOf({inserted.begin(), right})) shape.push_back(value);
    for (const int value : shapeOf({right, inserted.end()})) shape.push_back(value);
    return shape;
}

TEST(Tree, KeepsTheShapeThatItsDefinitionGives) {
    std::mt19937 random(2);
    Numbers all(90);
    std::iota(all.begin(), all.end(), 10);
    for (int round = 0; round < 200; ++round) {
        std::shuffle(all.begin(), all.end(), random);
        const Numbers numbers(all.begin(), all.begin() + 1 + static_cast<int>(random() % 40));
        const Tree tree = treeOf(numbers);
        ASSERT_EQ(walk(tree.get(), BT_PRE_ORDER), shapeOf(numbers));
        Numbers left = walk(tree.get(), BT_IN_ORDER);
        for (const int key : numbers) {
            ASSERT_EQ(bt_count(tree.get()), static_cast<int>(left.size()));
            ASSERT_EQ(number(bt_min(tree.get())), left.front());
            ASSERT_EQ(number(bt_max(tree.get())), left.back());
            const int found = number(bt_find(tree.get(), at(key), 1));
            ASSERT_EQ(found / 10, key / 10);
            ASSERT_EQ(number(bt_delete(tree.get(), at(key))), found);
            left.erase(std::find(left.begin(), left.end(), found));
            ASSERT_EQ(walk(tree.get(), BT_IN_ORDER), left);
        }
    }
}

// Of a tree of 60 at the root, 30 (with 50 on its right) and 80: every order, whole and with a visit that returns 0.
TEST(Tree, IsWalkedInEveryOrderAndPruned) {
    const std::tuple<int, int, Numbers, int> cases[] = {{BT_PRE_ORDER, -1, {60, 30, 50, 80}, -1},
                                                        {BT_PRE_ORDER, 30, {60, 30, 80}, -1},
                                                        {BT_PRE_ORDER, 60, {60}, 60},
                                                        {BT_IN_ORDER, 30, {30, 60, 80}, -1},
                                                        {BT_IN_ORDER, 60, {30, 50, 60}, 60},
                                                        {BT_POST_ORDER, 30, {50, 30, 80, 60}, -1},
                                                        {BT_POST_ORDER, 60, {50, 30, 80, 60}, 60},
                                                        {BT_REVERSE_IN_ORDER, -1, {80, 60, 50, 30}, -1},
                                                        {BT_REVERSE_IN_ORDER, 60, {80, 60}, 60},
                                                        {BT_BREADTH_FIRST, -1, {60, 30, 80, 50}, -1},
                                                        {BT_BREADTH_FIRST, 30, {60, 30}, -1}};
    for (const auto &[order, zeroAt, seen, result] : cases) {
        const auto traverse = [&, order = order, zeroAt = zeroAt] {
            const Tree tree = treeOf({50, 30, 80, 60});
            EXPECT_EQ(bt_height(tree.get()), 3);
            Visits visits = {zeroAt};
            EXPECT_EQ(number(bt_traverse(tree.get(), 1, order, visit, &visits)), result) << order;
            EXPECT_EQ(visits.seen, seen) << "order " << order << ", 0 at " << zeroAt;
            const bool stopped = order == BT_BREADTH_FIRST && zeroAt >= 0;
            EXPECT_EQ(pthread_mutex_trylock(&tree->lock) != 0, stopped) << "left locked";
            EXPECT_EQ(number(bt_find(tree.get(), at(50), 0)), 50) << "while it is locked";
            pthread_mutex_unlock(&tree->lock);
        };
        // In a child, which ends without the leak check: a walk that is ended early leaves its queue behind.
        EXPECT_EQ(board::wait(board::fork(traverse)), 0);
    }
}

TEST(Tree, IsFreedWithoutRecursion) { EXPECT_EQ(bt_count(treeOf(Numbers(100000, 1)).get()), 100000); }

TEST(Containers, AnswerForNullAndEmpty) {
    ll_node *cursor = nullptr;
    EXPECT_EQ(ll_is_empty(nullptr), 1);
    EXPECT_EQ(ll_count(nullptr) + ll_traverse(nullptr, 1, visit, nullptr), 0);
    EXPECT_EQ(ll_swap(nullptr, at(1), at(1), 1, matchNumber), -1);
    for (auto *take : {ll_head, ll_tail, ll_delete_head, ll_delete_tail}) EXPECT_EQ(take(nullptr), nullptr);
    for (auto *add : {ll_append, ll_insert_head}) EXPECT_EQ(add(nullptr, at(1)), nullptr);
    EXPECT_EQ(ll_delete(nullptr, at(1), matchNumber), ll_find(nullptr, at(1), 1, matchNumber));
    EXPECT_EQ(ll_get(nullptr, &cursor, 1), bt_add(nullptr, at(1)));
    ll_free(nullptr);
    bt_free(nullptr);
    const Tree empty = treeOf({}), null = {nullptr, bt_free};
    for (const Tree *tree : {&empty, &null}) {
        EXPECT_EQ(bt_count(tree->get()) + bt_height(tree->get()), 0);
        for (auto *end : {bt_min, bt_max}) EXPECT_EQ(end(tree->get()), nullptr);
        EXPECT_EQ(bt_find(tree->get(), at(1), 1), bt_delete(tree->get(), at(1)));
        for (int order = -1; order <= 5; ++order) EXPECT_EQ(walk(tree->get(), order), Numbers{});
    }
}

}  // namespace
