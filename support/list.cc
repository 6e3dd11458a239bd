#include <cstdlib>
#include <utility>

#include "support/containers.h"

namespace {

void lockIf(ll_list *list, int lock) {
    if (lock != 0) pthread_mutex_lock(&list->lock);
}

void unlockIf(ll_list *list, int lock) {
    if (lock != 0) pthread_mutex_unlock(&list->lock);
}

// Links a new node between the tail and the head. Null when it cannot be allocated.
ll_node *linkAfterTail(ll_list *list, void *value) {
    ll_node *const node = static_cast<ll_node *>(malloc(sizeof(ll_node)));
    if (node == nullptr) return nullptr;
    node->value = value;
    if (list->tail == nullptr) {
        node->next = node;
        list->tail = node;
    } else {
        node->next = list->tail->next;
        list->tail->next = node;
    }
    ++list->count;
    return node;
}

// Returns the node before the first match from the head, or null.
ll_node *findBefore(const ll_list *list, const void *key, ll_match match) {
    if (list->tail == nullptr) return nullptr;
    ll_node *before = list->tail;
    do {
        if (match(before->next->value, key) == 0) return before;
        before = before->next;
    } while (before != list->tail);
    return nullptr;
}

ll_node *findBeforeTail(const ll_list *list) {
    ll_node *before = list->tail;
    while (before != nullptr && before->next != list->tail) before = before->next;
    return before;
}

// Frees the node after `before` and returns its value. Null when `before` is null.
void *unlinkAfter(ll_list *list, ll_node *before) {
    if (before == nullptr) return nullptr;
    ll_node *const node = before->next;
    void *const value = node->value;
    before->next = node->next;
    if (node == before) {
        list->tail = nullptr;
    } else if (node == list->tail) {
        list->tail = before;
    }
    free(node);
    --list->count;
    return value;
}

// Swaps the nodes after the two given ones. Swapping first the links to them and then the links from them is right for
// neighbours, too.
void swapAfter(ll_list *list, ll_node *beforeA, ll_node *beforeB) {
    ll_node *const a = beforeA->next;
    ll_node *const b = beforeB->next;
    if (a == b) return;
    std::swap(beforeA->next, beforeB->next);
    std::swap(a->next, b->next);
    if (list->tail == a) {
        list->tail = b;
    } else if (list->tail == b) {
        list->tail = a;
    }
}

}  // namespace

ll_list *ll_init() {
    ll_list *const list = static_cast<ll_list *>(calloc(1, sizeof(ll_list)));
    if (list != nullptr) pthread_mutex_init(&list->lock, nullptr);
    return list;
}

void ll_free(ll_list *list) {
    if (list == nullptr) return;
    lockIf(list, 1);
    while (list->tail != nullptr) unlinkAfter(list, list->tail);
    unlockIf(list, 1);
    pthread_mutex_destroy(&list->lock);
    free(list);
}

ll_list *ll_append(ll_list *list, void *value) {
    if (list == nullptr) return nullptr;
    lockIf(list, 1);
    ll_node *const node = linkAfterTail(list, value);
    if (node != nullptr) list->tail = node;
    unlockIf(list, 1);
    return list;
}

ll_list *ll_insert_head(ll_list *list, void *value) {
    if (list == nullptr) return nullptr;
    lockIf(list, 1);
    linkAfterTail(list, value);
    unlockIf(list, 1);
    return list;
}

int ll_is_empty(ll_list *list) { return list == nullptr || list->tail == nullptr; }

int ll_count(ll_list *list) {
    if (list == nullptr) return 0;
    lockIf(list, 1);
    const int count = list->count;
    unlockIf(list, 1);
    return count;
}

void *ll_head(ll_list *list) {
    if (list == nullptr) return nullptr;
    lockIf(list, 1);
    void *const value = list->tail != nullptr ? list->tail->next->value : nullptr;
    unlockIf(list, 1);
    return value;
}

void *ll_tail(ll_list *list) {
    if (list == nullptr) return nullptr;
    lockIf(list, 1);
    void *const value = list->tail != nullptr ? list->tail->value : nullptr;
    unlockIf(list, 1);
    return value;
}

void *ll_delete_head(ll_list *list) {
    if (list == nullptr) return nullptr;
    lockIf(list, 1);
    void *const value = unlinkAfter(list, list->tail);
    unlockIf(list, 1);
    return value;
}

void *ll_delete_tail(ll_list *list) {
    if (list == nullptr) return nullptr;
    lockIf(list, 1);
    void *const value = unlinkAfter(list, findBeforeTail(list));
    unlockIf(list, 1);
    return value;
}

void *ll_delete(ll_list *list, const void *key, ll_match match) {
    if (list == nullptr) return nullptr;
    lockIf(list, 1);
    void *const value = unlinkAfter(list, findBefore(list, key, match));
    unlockIf(list, 1);
    return value;
}

void *ll_find(ll_list *list, const void *key, int lock, ll_match match) {
    if (list == nullptr) return nullptr;
    lockIf(list, lock);
    const ll_node *const before = findBefore(list, key, match);
    void *const value = before != nullptr ? before->next->value : nullptr;
    unlockIf(list, lock);
    return value;
}

int ll_traverse(ll_list *list, int lock, container_visit visit, void *argument) {
    if (list == nullptr) return 0;
    lockIf(list, lock);
    int going = list->tail != nullptr;
    for (ll_node *node = list->tail; going != 0;) {
        node = node->next;
        going = visit(node->value, argument) != 0;
        if (node == list->tail) break;
    }
    unlockIf(list, lock);
    return going;
}

void *ll_get(ll_list *list, ll_node **cursor, int lock) {
    if (list == nullptr) return nullptr;
    lockIf(list, lock);
    void *value = nullptr;
    if (list->tail != nullptr && *cursor != list->tail) {
        *cursor = *cursor != nullptr ? (*cursor)->next : list->tail->next;
        value = (*cursor)->value;
    }
    unlockIf(list, lock);
    return value;
}

int ll_swap(ll_list *list, const void *a, const void *b, int lock, ll_match match) {
    if (list == nullptr) return -1;
    lockIf(list, lock);
    ll_node *const beforeA = findBefore(list, a, match);
    ll_node *const beforeB = findBefore(list, b, match);
    const bool found = beforeA != nullptr && beforeB != nullptr;
    if (found) swapAfter(list, beforeA, beforeB);
    unlockIf(list, lock);
    return found ? 0 : -1;
}

void *dq_pop(ll_list *list) { return ll_delete_head(list); }

void *dq_peek(ll_list *list) { return ll_head(list); }

void *dq_pop_tail(ll_list *list) { return ll_delete_tail(list); }

void *dq_peek_tail(ll_list *list) { return ll_tail(list); }
