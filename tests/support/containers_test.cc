#include "support/containers.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <random>

#include "tests/native_board.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

using Numbers = std::vector<int>;

int matchNumber(const void *value, const void *key) {
    return *static_cast<const int *>(value) == *static_cast<const int *>(key) ? 0 : 1;
}

int number(const void *value) { return value != nullptr ? *static_cast<const int *>(value) : -1; }

int collect(void *value, void *numbers) {
    static_cast<Numbers *>(numbers)->push_back(number(value));
    return 1;
}

// Values 0 to 99, whose addresses the containers hold.
class Values {
public:
    Values() {
        for (int i = 0; i < 100; ++i) values_.push_back(i);
    }
    void *operator[](int i) { return &values_[static_cast<size_t>(i)]; }

private:
    std::deque<int> values_;
};

using List = std::unique_ptr<ll_list, decltype(&ll_free)>;
List newList() { return {ll_init(), ll_free}; }

Numbers contents(ll_list *list) {
    Numbers numbers;
    ll_traverse(list, 1, collect, &numbers);
    return numbers;
}

TEST(List, AnswersForEmptyAndNull) {
    const List empty = newList();
    for (ll_list *list : {empty.get(), static_cast<ll_list *>(nullptr)}) {
        const int key = 1;
        ll_node *cursor = nullptr;
        EXPECT_EQ(ll_is_empty(list), 1);
        EXPECT_EQ(ll_count(list), 0);
        for (auto *take :
             {ll_head, ll_tail, ll_delete_head, ll_delete_tail, dq_pop, dq_peek, dq_pop_tail, dq_peek_tail}) {
            EXPECT_EQ(take(list), nullptr);
        }
        EXPECT_EQ(ll_delete(list, &key, matchNumber), nullptr);
        EXPECT_EQ(ll_find(list, &key, 1, matchNumber), nullptr);
        EXPECT_EQ(ll_traverse(list, 1, collect, nullptr), 0);
        EXPECT_EQ(ll_get(list, &cursor, 1), nullptr);
        EXPECT_EQ(ll_swap(list, &key, &key, 1, matchNumber), -1);
    }
    int value = 1;
    EXPECT_EQ(ll_append(nullptr, &value), nullptr);
    ll_free(nullptr);
}

TEST(List, IteratesOnce) {
    Values values;
    for (const int length : {1, 3}) {
        const List list = newList();
        for (int i = 1; i <= length; ++i) ll_append(list.get(), values[i]);
        ll_node *cursor = nullptr;
        for (int i = 1; i <= length; ++i) EXPECT_EQ(number(ll_get(list.get(), &cursor, 1)), i);
        EXPECT_EQ(ll_get(list.get(), &cursor, 1), nullptr);
        EXPECT_EQ(cursor, list->tail);
    }
}

TEST(List, TraverseStopsAtZero) {
    Values values;
    const List list = newList();
    for (int i = 1; i <= 3; ++i) ll_append(list.get(), values[i]);
    const auto untilTwo = [](void *value, void *visits) {
        ++*static_cast<int *>(visits);
        return number(value) != 2 ? 1 : 0;
    };
    int visits = 0;
    EXPECT_EQ(ll_traverse(list.get(), 1, untilTwo, &visits), 0);
    EXPECT_EQ(visits, 2);
}

TEST(List, SwapsAnyTwoNodes) {
    Values values;
    for (int length = 1; length <= 4; ++length) {
        for (int a = 0; a < length; ++a) {
            for (int b = 0; b < length; ++b) {
                const List list = newList();
                Numbers expected;
                for (int i = 0; i < length; ++i) {
                    ll_append(list.get(), values[i]);
                    expected.push_back(i);
                }
                std::swap(expected[static_cast<size_t>(a)], expected[static_cast<size_t>(b)]);
                EXPECT_EQ(ll_swap(list.get(), &a, &b, 1, matchNumber), 0);
                EXPECT_EQ(contents(list.get()), expected) << a << " and " << b << " of " << length;
            }
        }
        const List list = newList();
        ll_append(list.get(), values[1]);
        const int present = 1;
        const int missing = 2;
        EXPECT_EQ(ll_swap(list.get(), &present, &missing, 1, matchNumber), -1);
    }
}

// Thousands of random operations, each compared with the same one on a standard container.
TEST(List, BehavesAsADeque) {
    Values values;
    const List list = newList();
    std::deque<int> model;
    std::mt19937 random(1);
    const auto front = [&] { return model.empty() ? -1 : model.front(); };
    const auto back = [&] { return model.empty() ? -1 : model.back(); };
    for (int i = 0; i < 20000; ++i) {
        const int value = static_cast<int>(random() % 100);
        switch (random() % 6) {
        case 0:
            EXPECT_EQ(ll_append(list.get(), values[value]), list.get());
            model.push_back(value);
            break;
        case 1:
            ll_insert_head(list.get(), values[value]);
            model.push_front(value);
            break;
        case 2:
            EXPECT_EQ(number(dq_pop(list.get())), front());
            if (!model.empty()) model.pop_front();
            break;
        case 3:
            EXPECT_EQ(number(dq_pop_tail(list.get())), back());
            if (!model.empty()) model.pop_back();
            break;
        default: {
            const auto found = std::find(model.begin(), model.end(), value);
            const int expected = found != model.end() ? value : -1;
            EXPECT_EQ(number(ll_find(list.get(), &value, 1, matchNumber)), expected);
            EXPECT_EQ(number(ll_delete(list.get(), &value, matchNumber)), expected);
            if (found != model.end()) model.erase(found);
        }
        }
        ASSERT_EQ(static_cast<size_t>(ll_count(list.get())), model.size());
        ASSERT_EQ(number(ll_head(list.get())), front());
        ASSERT_EQ(number(ll_tail(list.get())), back());
    }
    EXPECT_THAT(contents(list.get()), ElementsAreArray(model));
}

// Equal by the tens digit, so that equal values can be told apart.
int compareTens(const void *a, const void *b) {
    const int left = number(a) / 10;
    const int right = number(b) / 10;
    return (left > right) - (left < right);
}

using Tree = std::unique_ptr<bt_tree, decltype(&bt_free)>;
Tree newTree() { return {bt_init(compareTens), bt_free}; }

Numbers walk(bt_tree *tree, int order) {
    Numbers numbers;
    EXPECT_EQ(bt_traverse(tree, 1, order, collect, &numbers), nullptr);
    return numbers;
}

// A tree by the definition of insertion at the root: insert at the leaf, then rotate up, level by level.
struct ModelNode {
    int value;
    std::unique_ptr<ModelNode> left, right;
};
using Model = std::unique_ptr<ModelNode>;

Model insertAtRoot(Model node, int value) {
    if (!node) return Model(new ModelNode{value, nullptr, nullptr});
    Model up;
    if (value / 10 < node->value / 10) {
        up = insertAtRoot(std::move(node->left), value);
        node->left = std::move(up->right);
        up->right = std::move(node);
    } else {
        up = insertAtRoot(std::move(node->right), value);
        node->right = std::move(up->left);
        up->left = std::move(node);
    }
    return up;
}

void preOrder(const ModelNode *node, Numbers &numbers) {
    if (node == nullptr) return;
    numbers.push_back(node->value);
    preOrder(node->left.get(), numbers);
    preOrder(node->right.get(), numbers);
}

// A walk that ends early leaves its queue behind, which is no fault of the test that ends it.
class LeavesItsQueue {
#if defined(__SANITIZE_ADDRESS__)
    const __lsan::ScopedDisabler leaksAllowed_;
#endif
public:
    LeavesItsQueue() {}
};

TEST(Tree, AnswersForEmptyAndNull) {
    const Tree empty = newTree();
    for (bt_tree *tree : {empty.get(), static_cast<bt_tree *>(nullptr)}) {
        const int key = 1;
        EXPECT_EQ(bt_count(tree), 0);
        EXPECT_EQ(bt_height(tree), 0);
        EXPECT_EQ(bt_min(tree), nullptr);
        EXPECT_EQ(bt_max(tree), nullptr);
        EXPECT_EQ(bt_find(tree, &key, 1), nullptr);
        EXPECT_EQ(bt_delete(tree, &key), nullptr);
        for (int order = -1; order <= 5; ++order) EXPECT_THAT(walk(tree, order), IsEmpty());
    }
    int value = 1;
    EXPECT_EQ(bt_add(nullptr, &value), nullptr);
    bt_free(nullptr);
}

TEST(Tree, InsertsAtTheRootAndWalksInEveryOrder) {
    Values values;
    const Tree tree = newTree();
    for (const int value : {50, 30, 80}) bt_add(tree.get(), values[value]);
    EXPECT_EQ(number(tree->root->value), 80);
    EXPECT_EQ(bt_height(tree.get()), 3);
    EXPECT_THAT(walk(tree.get(), BT_PRE_ORDER), ElementsAre(80, 30, 50));
    EXPECT_THAT(walk(tree.get(), BT_IN_ORDER), ElementsAre(30, 50, 80));
    EXPECT_THAT(walk(tree.get(), BT_POST_ORDER), ElementsAre(50, 30, 80));
    EXPECT_THAT(walk(tree.get(), BT_REVERSE_IN_ORDER), ElementsAre(80, 50, 30));
    bt_add(tree.get(), values[60]);
    EXPECT_THAT(walk(tree.get(), BT_BREADTH_FIRST), ElementsAre(60, 30, 80, 50));
    EXPECT_EQ(number(bt_min(tree.get())), 30);
    EXPECT_EQ(number(bt_max(tree.get())), 80);
    bt_add(tree.get(), values[51]);
    EXPECT_THAT(walk(tree.get(), BT_IN_ORDER), ElementsAre(30, 50, 51, 60, 80))
        << "the older of two equals comes first";
}

// What a visit that returns 0 at 60 (the root), at 30 or at 80 leaves out.
TEST(Tree, VisitsThatReturnZeroPrune) {
    struct Visits {
        int zeroAt;
        Numbers seen;
    };
    const auto visit = [](void *value, void *argument) {
        Visits *const visits = static_cast<Visits *>(argument);
        visits->seen.push_back(number(value));
        return number(value) != visits->zeroAt ? 1 : 0;
    };
    const struct {
        int order, zeroAt;
        Numbers seen;
        bool rootReturned;
    } cases[] = {
        {BT_PRE_ORDER, 30, {60, 30, 80}, false},
        {BT_PRE_ORDER, 60, {60}, true},
        {BT_IN_ORDER, 30, {30, 60, 80}, false},
        {BT_IN_ORDER, 60, {30, 50, 60}, true},
        {BT_POST_ORDER, 30, {50, 30, 80, 60}, false},
        {BT_POST_ORDER, 60, {50, 30, 80, 60}, true},
        {BT_REVERSE_IN_ORDER, 80, {80, 60, 50, 30}, false},
        {BT_REVERSE_IN_ORDER, 60, {80, 60}, true},
        {BT_BREADTH_FIRST, 30, {60, 30}, false},
    };
    for (const auto &test : cases) {
        Values values;
        const Tree tree = newTree();
        for (const int value : {50, 30, 80, 60}) bt_add(tree.get(), values[value]);
        Visits visits = {test.zeroAt, {}};
        const LeavesItsQueue leaves;
        const int lock = test.order != BT_BREADTH_FIRST;
        const int result = number(bt_traverse(tree.get(), lock, test.order, visit, &visits));
        EXPECT_EQ(visits.seen, test.seen) << "order " << test.order << ", 0 at " << test.zeroAt;
        EXPECT_EQ(result, test.rootReturned ? 60 : -1) << "order " << test.order << ", 0 at " << test.zeroAt;
    }
}

TEST(Tree, BreadthFirstStoppedEarlyLeavesTheTreeLocked) {
    Values values;
    const Tree tree = newTree();
    bt_add(tree.get(), values[1]);
    const auto stop = [](void *, void *) { return 0; };
    const LeavesItsQueue leaves;
    bt_traverse(tree.get(), 1, BT_BREADTH_FIRST, stop, nullptr);
    EXPECT_EQ(pthread_mutex_trylock(&tree->lock), EBUSY);
    pthread_mutex_unlock(&tree->lock);
}

TEST(Tree, KeepsTheShapeThatItsDefinitionGives) {
    Values values;
    std::mt19937 random(2);
    for (int round = 0; round < 200; ++round) {
        const Tree tree = newTree();
        Model model;
        const int size = static_cast<int>(random() % 40);
        for (int i = 0; i < size; ++i) {
            const int value = static_cast<int>(random() % 100);
            bt_add(tree.get(), values[value]);
            model = insertAtRoot(std::move(model), value);
        }
        Numbers expected;
        preOrder(model.get(), expected);
        ASSERT_EQ(walk(tree.get(), BT_PRE_ORDER), expected);
        ASSERT_EQ(bt_count(tree.get()), size);

        for (int tens = 0; tens < 100; tens += 10) {
            Numbers before = walk(tree.get(), BT_IN_ORDER);
            const int found = number(bt_find(tree.get(), &tens, 1));
            ASSERT_EQ(number(bt_delete(tree.get(), &tens)), found);
            std::erase(before, found);
            Numbers after = walk(tree.get(), BT_IN_ORDER);
            std::erase(after, found);
            ASSERT_EQ(after, before);
            ASSERT_TRUE(std::is_sorted(after.begin(), after.end(), [](int a, int b) { return a / 10 < b / 10; }));
        }
    }
}

TEST(Tree, FreesAHundredThousandInOneLine) {
    Values values;
    const Tree tree = newTree();
    for (int i = 0; i < 100000; ++i) bt_add(tree.get(), values[1]);
    EXPECT_EQ(bt_count(tree.get()), 100000);
}

}  // namespace
