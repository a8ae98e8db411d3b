// Intrusive circular doubly linked lists with a dummy head.
//
// A link is always in one of three states: linked (on a list), self-linked
// (next and prev point at itself, like an empty head) or cleared (both NULL,
// only after list_del). Node links are only ever unlinked with list_del_init
// or moved, so freeing and re-queuing never need to ask where a node is.
// None of these check their arguments and none can fail.
#ifndef METERD_DATABASE_LINKED_LIST_H
#define METERD_DATABASE_LINKED_LIST_H

#include <cstddef>

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

#define LIST_HEAD_INIT(name) { &(name), &(name) }

inline void INIT_LIST_HEAD(struct list_head *list)
{
    list->next = list;
    list->prev = list;
}

inline void __list_add(struct list_head *new_, struct list_head *prev, struct list_head *next)
{
    next->prev = new_;
    new_->next = next;
    new_->prev = prev;
    prev->next = new_;
}

// Puts new_ directly behind head, at the front of the list.
inline void list_add(struct list_head *new_, struct list_head *head)
{
    __list_add(new_, head, head->next);
}

// Puts new_ directly before head, at the end of the list.
inline void list_add_tail(struct list_head *new_, struct list_head *head)
{
    __list_add(new_, head->prev, head);
}

inline void __list_del(struct list_head *prev, struct list_head *next)
{
    next->prev = prev;
    prev->next = next;
}

// Leaves entry cleared: only for links that are never used again.
inline void list_del(struct list_head *entry)
{
    __list_del(entry->prev, entry->next);
    entry->next = nullptr;
    entry->prev = nullptr;
}

// Leaves entry self-linked, so that a second removal is harmless.
inline void list_del_init(struct list_head *entry)
{
    __list_del(entry->prev, entry->next);
    INIT_LIST_HEAD(entry);
}

inline void list_move(struct list_head *entry, struct list_head *head)
{
    __list_del(entry->prev, entry->next);
    list_add(entry, head);
}

inline void list_move_tail(struct list_head *entry, struct list_head *head)
{
    __list_del(entry->prev, entry->next);
    list_add_tail(entry, head);
}

inline int list_empty(const struct list_head *head)
{
    return head->next == head;
}

// The record that holds a link, found by subtracting the link's offset.
#define list_entry(ptr, type, member) \
    (reinterpret_cast<type *>(reinterpret_cast<char *>(ptr) - offsetof(type, member)))

// Walks every link of the list from the first. The body must not unlink pos.
#define list_for_each(pos, head) for (pos = (head)->next; pos != (head); pos = pos->next)

// The same, noting the next link before the body runs, so that the body may
// unlink or free the entry at pos (but no other entry of this list).
#define list_for_each_safe(pos, n, head) \
    for (pos = (head)->next, n = pos->next; pos != (head); pos = n, n = pos->next)

#endif
