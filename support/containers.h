#pragma once
// Two containers of untyped values: a circular singly linked list, which also serves as a double-ended queue, and an
// unbalanced binary search tree with insertion at the root.
//
// Values are pointers that stay the caller's: no operation frees one. Store only non-null ones, as null also says
// "empty" or "not found". Each container has its own mutex; an operation with a `lock` argument takes it when that is
// not 0, every other one always does, except ll_is_empty. A null container is accepted everywhere: the result is
// then null or 0, 1 of ll_is_empty, -1 of ll_swap.

#include <pthread.h>

#include <cstdint>

struct ll_node {
    ll_node *next;  // of the last node: the first
    void *value;
};

struct ll_list {
    int32_t count;
    ll_node *tail;  // the last node; null when the list is empty
    pthread_mutex_t lock;
};

// 0 when `value` is the one meant by `key`.
using ll_match = int (*)(const void *value, const void *key);
// 0 ends the walk (of a tree: see bt_order).
using container_visit = int (*)(void *value, void *argument);

ll_list *ll_init();  // an empty list, null when the allocation fails; freed by ll_free
void ll_free(ll_list *list);

// Insert at the tail or at the head; each returns the list. When no node can be allocated, the list is as before.
ll_list *ll_append(ll_list *list, void *value);
ll_list *ll_insert_head(ll_list *list, void *value);

int ll_is_empty(ll_list *list);  // 1 or 0
int ll_count(ll_list *list);
void *ll_head(ll_list *list);
void *ll_tail(ll_list *list);

// Unlink the first, the last, or the first matching node; each returns its value, null when there is none.
void *ll_delete_head(ll_list *list);
void *ll_delete_tail(ll_list *list);
void *ll_delete(ll_list *list, const void *key, ll_match match);

// The first matching value from the head, or null.
void *ll_find(ll_list *list, const void *key, int lock, ll_match match);

// Visits from head to tail. 1 when every visit returned non-zero; 0 when one returned 0, or for an empty list.
int ll_traverse(ll_list *list, int lock, container_visit visit, void *argument);

// Iterator: start with *cursor null. Moves the cursor to the next node and returns its value; at the tail returns
// null and leaves the cursor.
void *ll_get(ll_list *list, ll_node **cursor, int lock);

// Exchanges the positions of the first node that matches a and the first that matches b. 0, or -1 when either is
// missing.
int ll_swap(ll_list *list, const void *a, const void *b, int lock, ll_match match);

void *dq_pop(ll_list *list);
void *dq_peek(ll_list *list);
void *dq_pop_tail(ll_list *list);
void *dq_peek_tail(ll_list *list);

struct bt_node {
    bt_node *left;
    bt_node *right;
    void *value;
};

// -1 when a sorts before b, 0 when equal, 1 when after. Exactly these: the tree tells -1 and 1 from anything else.
using bt_compare = int (*)(const void *a, const void *b);

struct bt_tree {
    int32_t count;
    bt_node *root;
    bt_compare compare;
    pthread_mutex_t lock;
};

// What a visit that returns 0 does depends on the order.
enum bt_order {
    BT_PRE_ORDER = 0,         // skips the subtrees of the node
    BT_IN_ORDER = 1,          // ascending; skips the right subtree of the node
    BT_POST_ORDER = 2,        // nothing
    BT_BREADTH_FIRST = 3,     // ends the walk at once, with the tree still locked when `lock` was set
    BT_REVERSE_IN_ORDER = 4,  // descending; skips the left subtree of the node
};

bt_tree *bt_init(bt_compare compare);  // an empty tree, null when the allocation fails; freed by bt_free
void bt_free(bt_tree *tree);

// Makes `value` the root; behind values that compare equal in ascending order. Returns the tree, or null when no node
// can be allocated (the tree is as before).
bt_tree *bt_add(bt_tree *tree, void *value);

// The value met first on the way down that compares equal, or null.
void *bt_find(bt_tree *tree, const void *key, int lock);

// Removes the node that bt_find would meet and returns its value, null when there is none.
void *bt_delete(bt_tree *tree, const void *key);

// Visits every value in the given order (a bt_order; any other number visits nothing). Except breadth-first, returns
// the value that the root had when the walk began if the visit of the root returned 0; else null. Recursive: as deep as
// the tree is high.
void *bt_traverse(bt_tree *tree, int lock, int order, container_visit visit, void *argument);

int bt_count(bt_tree *tree);
int bt_height(bt_tree *tree);  // nodes on the longest path down, 0 for an empty tree
void *bt_min(bt_tree *tree);
void *bt_max(bt_tree *tree);
