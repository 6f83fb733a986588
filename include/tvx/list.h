/* Lists: a doubly linked list of object handles with a cursor, and the rows (hlist) and row
 * arrays (vlist) of the definition files. */
#ifndef TVX_LIST_H
#define TVX_LIST_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* True when `object` (the list's element, always first) matches `key`. */
typedef BOOL (*list_match_fn)(HANDLE object, HANDLE key);
/* True when `a`, standing before `b`, belongs after it. */
typedef BOOL (*list_order_fn)(HANDLE a, HANDLE b);
/* Releases an element as it is removed; the list itself never owns its elements. */
typedef void (*list_destroy_fn)(HANDLE object);
typedef BOOL (*list_print_fn)(HANDLE object, FILE *stream);

/* ---- The list and its cursor ---------------------------------------------------------------
 * Every operation locks the list for its own duration; a list that cannot be locked gets the
 * operation's name added to the error and a result of FALSE, 0 or NULL. */
TVX_API HANDLE list_new(void);
TVX_API BOOL list_ctor(HANDLE list, HANDLE first);
TVX_API BOOL list_delete(HANDLE list, list_destroy_fn destroy);
TVX_API BOOL list_empty(HANDLE list, list_destroy_fn destroy);
TVX_API BOOL list_append_head(HANDLE list, HANDLE object);
TVX_API BOOL list_append_tail(HANDLE list, HANDLE object);
/* Removes the node under the cursor and puts the cursor on the head. */
TVX_API BOOL list_remove(HANDLE list, list_destroy_fn destroy);
TVX_API BOOL list_remove_object(HANDLE list, HANDLE key, list_match_fn match,
                                list_destroy_fn destroy);
TVX_API BOOL list_head(HANDLE list);
TVX_API BOOL list_tail(HANDLE list);
TVX_API BOOL list_next(HANDLE list);
TVX_API BOOL list_prev(HANDLE list);
TVX_API BOOL list_more(HANDLE list);
TVX_API INT32 list_size(HANDLE list);
TVX_API HANDLE list_get_current(HANDLE list);
TVX_API BOOL list_set_current(HANDLE list, HANDLE node);
TVX_API HANDLE list_get_object(HANDLE list);
TVX_API BOOL list_get_object_x(HANDLE list, HANDLE *out);
TVX_API HANDLE list_get_next_object(HANDLE list);
TVX_API BOOL list_set_object(HANDLE list, HANDLE object);
/* 1-based; out of range leaves the cursor NULL. */
TVX_API BOOL list_nth(HANDLE list, INT32 n);
TVX_API HANDLE list_get_nth_object(HANDLE list, INT32 n);
TVX_API BOOL list_get_nth_object_x(HANDLE list, INT32 n, HANDLE *out);
/* Leaves the cursor on the first match, or NULL when there is none. */
TVX_API BOOL list_find(HANDLE list, HANDLE key, list_match_fn match);
TVX_API BOOL list_find_object(HANDLE list, HANDLE key, list_match_fn match, HANDLE *out);
TVX_API BOOL list_reverse(HANDLE list);
/* Bubble sort of the elements in place; a NULL element stalls the pass where it stands. */
TVX_API BOOL list_sort(HANDLE list, list_order_fn out_of_order);
TVX_API BOOL list_print(HANDLE list, list_print_fn print, FILE *stream);

/* ---- Nodes ---------------------------------------------------------------------------------- */
/* Refuses while an error is pending on the error stack. */
TVX_API HANDLE listnode_new(HANDLE object, HANDLE prev, HANDLE next);
TVX_API BOOL listnode_ctor(HANDLE node, HANDLE object, HANDLE prev, HANDLE next);
TVX_API void listnode_dtor(HANDLE node);
TVX_API HANDLE listnode_next(HANDLE node);
TVX_API HANDLE listnode_prev(HANDLE node);
TVX_API BOOL listnode_set_next(HANDLE node, HANDLE next);
TVX_API BOOL listnode_set_prev(HANDLE node, HANDLE prev);
/* Makes a node in front of `node`: its `next` is `node`, and `node`'s `prev` is the new node. */
TVX_API HANDLE listnode_mk_next(HANDLE object, HANDLE node);
TVX_API INT32 listnode_size(HANDLE node);
TVX_API HANDLE listnode_tail(HANDLE node);
/* Reverses the chain from `node`, whose new `next` is `prev`; returns the new first node. */
TVX_API HANDLE listnode_reverse(HANDLE node, HANDLE prev);

/* ---- Rows of definition files ---------------------------------------------------------------
 * An hlist value holds an identifier in its high 16 bits and the offset of its text in the
 * definition text in its low 16 bits; a row ends with a 0 value, an array of rows with NULL. */
TVX_API INT32 *hlist_new(INT32 n);
TVX_API void hlist_delete(INT32 *h);
TVX_API INT32 hlist_size(const INT32 *h);
TVX_API INT32 hlist_id(INT32 value);
TVX_API const char *hlist_string(const char *text, INT32 value);
TVX_API void vlist_delete(INT32 **v);
TVX_API void hlist_print(const char *text, INT32 *const *v, FILE *stream);

TVX_END_DECLS

#endif
