#include <cstdlib>

#include "support/containers.h"

namespace {

void lockIf(bt_tree *tree, int lock) {
    if (lock != 0) pthread_mutex_lock(&tree->lock);
}

void unlockIf(bt_tree *tree, int lock) {
    if (lock != 0) pthread_mutex_unlock(&tree->lock);
}

// Makes `node` the root of the tree at `root`. The nodes on the search path of its value that sort after the value go
// to its right, the others to its left; each side keeps its order of ancestors. The result is that of inserting at the
// leaf and rotating up to the root, in one pass.
bt_node *splitUnder(bt_node *node, bt_node *root, bt_compare compare) {
    bt_node **before = &node->left;
    bt_node **after = &node->right;
    while (root != nullptr) {
        if (compare(node->value, root->value) == -1) {
            *after = root;
            after = &root->left;
            root = root->left;
        } else {
            *before = root;
            before = &root->right;
            root = root->right;
        }
    }
    *before = nullptr;
    *after = nullptr;
    return node;
}

// Returns the link (in a parent, or the root) to the node that compares equal, or the null link where it would be.
bt_node **findLink(bt_tree *tree, const void *key) {
    bt_node **link = &tree->root;
    while (*link != nullptr) {
        const int order = tree->compare(key, (*link)->value);
        if (order == -1) {
            link = &(*link)->left;
        } else if (order == 1) {
            link = &(*link)->right;
        } else {
            break;
        }
    }
    return link;
}

bt_node **leftmostLink(bt_node **link) {
    while (*link != nullptr && (*link)->left != nullptr) link = &(*link)->left;
    return link;
}

// Removes the value of the node at `link` from the tree and returns it. A node with two children takes the value of its
// successor, the leftmost node of its right subtree, and that node is removed instead.
void *unlinkAt(bt_node **link) {
    bt_node *node = *link;
    void *const value = node->value;
    if (node->left != nullptr && node->right != nullptr) {
        link = leftmostLink(&node->right);
        node->value = (*link)->value;
        node = *link;
    }
    *link = node->left != nullptr ? node->left : node->right;
    free(node);
    return value;
}

struct Walk {
    container_visit visit;
    void *argument;
    bool seen(const bt_node *node) const { return visit(node->value, argument) != 0; }
};

// Each returns whether the visit of `node` itself returned non-zero. A 0 from a visit further down only prunes there.
bool preOrder(const bt_node *node, const Walk &walk) {
    if (node == nullptr) return true;
    if (!walk.seen(node)) return false;
    preOrder(node->left, walk);
    preOrder(node->right, walk);
    return true;
}

bool inOrder(const bt_node *node, const Walk &walk) {
    if (node == nullptr) return true;
    inOrder(node->left, walk);
    if (!walk.seen(node)) return false;
    inOrder(node->right, walk);
    return true;
}

bool postOrder(const bt_node *node, const Walk &walk) {
    if (node == nullptr) return true;
    postOrder(node->left, walk);
    postOrder(node->right, walk);
    return walk.seen(node);
}

bool reverseInOrder(const bt_node *node, const Walk &walk) {
    if (node == nullptr) return true;
    reverseInOrder(node->right, walk);
    if (!walk.seen(node)) return false;
    reverseInOrder(node->left, walk);
    return true;
}

// Returns false when a visit ends the walk. Intended: the queue is then never freed, and the tree stays locked.
bool breadthFirst(bt_node *root, const Walk &walk) {
    ll_list *const queue = ll_init();
    if (root != nullptr) ll_append(queue, root);
    while (bt_node *const node = static_cast<bt_node *>(dq_pop(queue))) {
        if (!walk.seen(node)) return false;
        if (node->left != nullptr) ll_append(queue, node->left);
        if (node->right != nullptr) ll_append(queue, node->right);
    }
    ll_free(queue);
    return true;
}

void freeNodes(bt_node *node) {
    if (node == nullptr) return;
    freeNodes(node->left);
    freeNodes(node->right);
    free(node);
}

int heightOf(const bt_node *node) {
    if (node == nullptr) return 0;
    const int left = heightOf(node->left);
    const int right = heightOf(node->right);
    return 1 + (left > right ? left : right);
}

}  // namespace

bt_tree *bt_init(bt_compare compare) {
    bt_tree *const tree = static_cast<bt_tree *>(calloc(1, sizeof(bt_tree)));
    if (tree == nullptr) return nullptr;
    tree->compare = compare;
    pthread_mutex_init(&tree->lock, nullptr);
    return tree;
}

void bt_free(bt_tree *tree) {
    if (tree == nullptr) return;
    lockIf(tree, 1);
    freeNodes(tree->root);
    unlockIf(tree, 1);
    pthread_mutex_destroy(&tree->lock);
    free(tree);
}

bt_tree *bt_add(bt_tree *tree, void *value) {
    if (tree == nullptr) return nullptr;
    bt_node *const node = static_cast<bt_node *>(malloc(sizeof(bt_node)));
    if (node == nullptr) return nullptr;
    node->value = value;
    lockIf(tree, 1);
    tree->root = splitUnder(node, tree->root, tree->compare);
    ++tree->count;
    unlockIf(tree, 1);
    return tree;
}

void *bt_find(bt_tree *tree, const void *key, int lock) {
    if (tree == nullptr) return nullptr;
    lockIf(tree, lock);
    const bt_node *const node = *findLink(tree, key);
    void *const value = node != nullptr ? node->value : nullptr;
    unlockIf(tree, lock);
    return value;
}

void *bt_delete(bt_tree *tree, const void *key) {
    if (tree == nullptr) return nullptr;
    lockIf(tree, 1);
    bt_node **const link = findLink(tree, key);
    void *const value = *link != nullptr ? unlinkAt(link) : nullptr;
    if (value != nullptr) --tree->count;
    unlockIf(tree, 1);
    return value;
}

void *bt_traverse(bt_tree *tree, int lock, int order, container_visit visit, void *argument) {
    constexpr bool (*kWalks[])(const bt_node *, const Walk &) = {preOrder, inOrder, postOrder, nullptr, reverseInOrder};
    if (tree == nullptr || order < BT_PRE_ORDER || order > BT_REVERSE_IN_ORDER) return nullptr;
    const Walk walk = {visit, argument};
    lockIf(tree, lock);
    // Read before the walk: a visit may free the value or, in an unlocked tree, replace the root.
    void *const rootValue = tree->root != nullptr ? tree->root->value : nullptr;
    void *stoppedAt = nullptr;
    if (order == BT_BREADTH_FIRST) {
        // Intended: when a visit ends the walk early, the tree stays locked.
        if (!breadthFirst(tree->root, walk)) return nullptr;
    } else if (!kWalks[order](tree->root, walk)) {
        stoppedAt = rootValue;
    }
    unlockIf(tree, lock);
    return stoppedAt;
}

int bt_count(bt_tree *tree) {
    if (tree == nullptr) return 0;
    lockIf(tree, 1);
    const int count = tree->count;
    unlockIf(tree, 1);
    return count;
}

int bt_height(bt_tree *tree) {
    if (tree == nullptr) return 0;
    lockIf(tree, 1);
    const int height = heightOf(tree->root);
    unlockIf(tree, 1);
    return height;
}

void *bt_min(bt_tree *tree) {
    if (tree == nullptr) return nullptr;
    lockIf(tree, 1);
    const bt_node *const first = *leftmostLink(&tree->root);
    void *const value = first != nullptr ? first->value : nullptr;
    unlockIf(tree, 1);
    return value;
}

void *bt_max(bt_tree *tree) {
    if (tree == nullptr) return nullptr;
    lockIf(tree, 1);
    const bt_node *last = tree->root;
    while (last != nullptr && last->right != nullptr) last = last->right;
    void *const value = last != nullptr ? last->value : nullptr;
    unlockIf(tree, 1);
    return value;
}
