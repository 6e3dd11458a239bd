#pragma once
// Two containers of untyped values: a circular singly linked list, which also serves as a double-ended queue, and an
// unbalanced binary search tree with insertion at the root.
//
// Values are pointers that the caller owns; no operation frees one. Store only non-null values: null also means "empty"
// or "not found". Each container has its own mutex. An operation with a `lock` argument takes it unless the argument is
// 0; every other operation takes it, except ll_is_empty. Every operation accepts a null container and then returns null
// or 0; ll_is_empty returns 1, ll_swap -1.

#include <pthread.h>

#include <cstdint>

struct ll_node {
    ll_node *next;  // of the last node: the first node
    void *value;
};

struct ll_list {
    int32_t count;
    ll_node *tail;  // the last node; null when the list is empty
    pthread_mutex_t lock;
};

// Returns 0 when `value` matches `key`.
using ll_match = int (*)(const void *value, const void *key);
// Returns 0 to end the walk of a list, or to prune that of a tree (see bt_order).
using container_visit = int (*)(void *value, void *argument);

// Returns an empty list, which ll_free frees, or null when the allocation fails.
ll_list *ll_init();
void ll_free(ll_list *list);

// Insert at the tail or at the head. Return the list, which is unchanged when no node can be allocated.
ll_list *ll_append(ll_list *list, void *value);
ll_list *ll_insert_head(ll_list *list, void *value);

int ll_is_empty(ll_list *list);  // 1 or 0
int ll_count(ll_list *list);
void *ll_head(ll_list *list);
void *ll_tail(ll_list *list);

// Unlink the first, the last, or the first matching node. Return its value, or null when there is no such node.
void *ll_delete_head(ll_list *list);
void *ll_delete_tail(ll_list *list);
void *ll_delete(ll_list *list, const void *key, ll_match match);

// Returns the first matching value from the head, or null.
void *ll_find(ll_list *list, const void *key, int lock, ll_match match);

// Visits from head to tail. Returns 1 when every visit returned non-zero; 0 when one returned 0, or for an empty list.
int ll_traverse(ll_list *list, int lock, container_visit visit, void *argument);

// Iterates: moves the cursor to the next node, from a null *cursor to the head, and returns its value. At the tail
// returns null and leaves the cursor.
void *ll_get(ll_list *list, ll_node **cursor, int lock);

// Swaps the positions of the first node that matches a and the first that matches b. Returns 0, or -1 when either is
// missing.
int ll_swap(ll_list *list, const void *a, const void *b, int lock, ll_match match);

// The list as a double-ended queue: ll_delete_head, ll_head, ll_delete_tail, ll_tail.
void *dq_pop(ll_list *list);
void *dq_peek(ll_list *list);
void *dq_pop_tail(ll_list *list);
void *dq_peek_tail(ll_list *list);

struct bt_node {
    bt_node *left;
    bt_node *right;
    void *value;
};

// Returns exactly -1 when a sorts before b, 0 when they are equal, and 1 when a sorts after b.
using bt_compare = int (*)(const void *a, const void *b);

struct bt_tree {
    int32_t count;
    bt_node *root;
    bt_compare compare;
    pthread_mutex_t lock;
};

// The orders of a walk, and the effect of a visit that returns 0.
enum bt_order {
    BT_PRE_ORDER = 0,         // the subtrees of the node are skipped
    BT_IN_ORDER = 1,          // ascending; the right subtree of the node is skipped
    BT_POST_ORDER = 2,        // no effect
    BT_BREADTH_FIRST = 3,     // the walk ends at once and leaves the tree locked if `lock` was set
    BT_REVERSE_IN_ORDER = 4,  // descending; the left subtree of the node is skipped
};

// The functions below that visit all nodes recurse as deep as the tree is high.

// Returns an empty tree, which bt_free frees, or null when the allocation fails.
bt_tree *bt_init(bt_compare compare);
void bt_free(bt_tree *tree);

// Makes `value` the root. In ascending order it comes after the values that compare equal. Returns the tree, or null
// when no node can be allocated; the tree is then unchanged.
bt_tree *bt_add(bt_tree *tree, void *value);

// Returns the first value on the way down that compares equal, or null.
void *bt_find(bt_tree *tree, const void *key, int lock);

// Removes the value that bt_find would return, and returns it.
void *bt_delete(bt_tree *tree, const void *key);

// Visits every value in the given bt_order; any other number visits nothing. Returns the value that the root had at the
// start of the walk if the visit of the root returned 0, except breadth-first; else null.
void *bt_traverse(bt_tree *tree, int lock, int order, container_visit visit, void *argument);

int bt_count(bt_tree *tree);
int bt_height(bt_tree *tree);  // nodes on the longest path down, 0 for an empty tree
void *bt_min(bt_tree *tree);
void *bt_max(bt_tree *tree);
