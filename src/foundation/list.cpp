// The list: nodes in handle blocks linked both ways, and a cursor that most operations move. The
// list refers to its elements and never owns them; a destroy function given at removal releases
// them.
#include <cstdio>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/list.h"
#include "tvx/memory.h"

namespace {

using tvx::Locked;

struct ListRecord {
  INT32 count;
  HANDLE head;
  HANDLE tail;
  HANDLE current;  // the cursor; NULL past either end
};

struct NodeRecord {
  HANDLE object;
  HANDLE next;
  HANDLE prev;
};

// A copy of a node's fields, so that no node stays locked while the list is changed around it.
bool read_node(HANDLE node, const char *op, NodeRecord *out) {
  Locked<NodeRecord> n(node, op);
  if (!n) return tvx::qualify(op);
  *out = *n;
  return true;
}

template <class Change>
bool change_node(HANDLE node, const char *op, Change change) {
  Locked<NodeRecord> n(node, op);
  if (!n) return tvx::qualify(op);
  change(*n);
  return true;
}

bool step(ListRecord &list, bool forward, const char *op) {
  if (list.current == nullptr) return true;
  NodeRecord n{};
  if (!read_node(list.current, op, &n)) return false;
  list.current = forward ? n.next : n.prev;
  return true;
}

// The object under the cursor, or NULL when the cursor is off the list.
bool current_object(const ListRecord &list, const char *op, HANDLE *object) {
  *object = nullptr;
  if (list.current == nullptr) return true;
  NodeRecord n{};
  if (!read_node(list.current, op, &n)) return false;
  *object = n.object;
  return true;
}

bool set_current_object(const ListRecord &list, HANDLE object, const char *op) {
  if (list.current == nullptr) return true;
  return change_node(list.current, op, [object](NodeRecord &n) { n.object = object; });
}

bool remove_current(ListRecord &list, list_destroy_fn destroy, const char *op) {
  HANDLE gone = list.current;
  if (gone == nullptr) return false;
  NodeRecord n{};
  if (!read_node(gone, op, &n)) return false;
  if (n.prev != nullptr && !change_node(n.prev, op, [&n](NodeRecord &p) { p.next = n.next; }))
    return false;
  if (n.next != nullptr && !change_node(n.next, op, [&n](NodeRecord &q) { q.prev = n.prev; }))
    return false;
  if (list.head == gone) list.head = n.next;
  if (list.tail == gone) list.tail = n.prev;
  if (destroy != nullptr) destroy(n.object);
  handle_free(gone, op);
  --list.count;
  list.current = list.head;
  return true;
}

bool nth(ListRecord &list, INT32 n, const char *op) {
  if (n < 1 || n > list.count) {
    list.current = nullptr;
    return false;
  }
  list.current = list.head;
  for (INT32 i = 1; i < n; ++i)
    if (!step(list, true, op)) return false;
  return true;
}

bool find(ListRecord &list, HANDLE key, list_match_fn match, const char *op) {
  list.current = list.head;
  while (list.current != nullptr) {
    NodeRecord n{};
    if (read_node(list.current, op, &n) && match(n.object, key)) return true;
    if (!step(list, true, op)) return false;
  }
  return false;
}

// Walks the chain from `node`, counting the nodes and remembering the last.
bool walk_chain(HANDLE node, const char *op, INT32 *count, HANDLE *last) {
  *count = 0;
  *last = nullptr;
  while (node != nullptr) {
    NodeRecord n{};
    if (!read_node(node, op, &n)) return false;
    ++*count;
    *last = node;
    node = n.next;
  }
  return true;
}

}  // namespace

extern "C" {

// ---- Nodes ------------------------------------------------------------------------------------

HANDLE listnode_new(HANDLE object, HANDLE prev, HANDLE next) {
  static const char *const kOp = "listnode_new";
  // A node made while an error is pending would be part of a change that is already failing.
  if (tvx::error_pending()) {
    tvx::qualify(kOp);
    return nullptr;
  }
  HANDLE node = handle_allocate(1, sizeof(NodeRecord), MEM_LISTNODE);
  if (node == nullptr) {
    tvx::qualify(kOp);
    return nullptr;
  }
  if (!listnode_ctor(node, object, prev, next)) {
    tvx::qualify(kOp);
    listnode_dtor(node);
    return nullptr;
  }
  return node;
}

BOOL listnode_ctor(HANDLE node, HANDLE object, HANDLE prev, HANDLE next) {
  return change_node(node, "listnode_ctor", [=](NodeRecord &n) {
    n.object = object;
    n.prev = prev;
    n.next = next;
  });
}

void listnode_dtor(HANDLE node) {
  if (node != nullptr) handle_free(node, "listnode_dtor");
}

HANDLE listnode_next(HANDLE node) {
  NodeRecord n{};
  return read_node(node, "listnode_next", &n) ? n.next : nullptr;
}

HANDLE listnode_prev(HANDLE node) {
  NodeRecord n{};
  return read_node(node, "listnode_prev", &n) ? n.prev : nullptr;
}

BOOL listnode_set_next(HANDLE node, HANDLE next) {
  return change_node(node, "listnode_set_next", [next](NodeRecord &n) { n.next = next; });
}

BOOL listnode_set_prev(HANDLE node, HANDLE prev) {
  return change_node(node, "listnode_set_prev", [prev](NodeRecord &n) { n.prev = prev; });
}

HANDLE listnode_mk_next(HANDLE object, HANDLE node) {
  static const char *const kOp = "listnode_mk_next";
  HANDLE made = listnode_new(object, nullptr, node);
  if (made == nullptr) {
    tvx::qualify(kOp);
    return nullptr;
  }
  if (node != nullptr && !listnode_set_prev(node, made)) {
    listnode_dtor(made);
    tvx::qualify(kOp);
    return nullptr;
  }
  return made;
}

INT32 listnode_size(HANDLE node) {
  INT32 count = 0;
  HANDLE last = nullptr;
  walk_chain(node, "listnode_size", &count, &last);
  return count;
}

HANDLE listnode_tail(HANDLE node) {
  INT32 count = 0;
  HANDLE last = nullptr;
  walk_chain(node, "listnode_tail", &count, &last);
  return last;
}

HANDLE listnode_reverse(HANDLE node, HANDLE prev) {
  static const char *const kOp = "listnode_reverse";
  HANDLE handled = prev;
  while (node != nullptr) {
    Locked<NodeRecord> n(node, kOp);
    if (!n) {
      tvx::qualify(kOp);
      return node;
    }
    HANDLE old_next = n->next;
    n->next = handled;
    n->prev = old_next;
    handled = node;
    node = old_next;
  }
  return handled;
}

// ---- The list ---------------------------------------------------------------------------------

HANDLE list_new(void) {
  static const char *const kOp = "list_new";
  HANDLE list = handle_allocate(1, sizeof(ListRecord), MEM_LIST);
  if (list == nullptr) {
    tvx::qualify(kOp);
    return nullptr;
  }
  if (!list_ctor(list, nullptr)) {
    tvx::qualify(kOp);
    handle_free(list, kOp);
    return nullptr;
  }
  return list;
}

BOOL list_ctor(HANDLE list, HANDLE first) {
  static const char *const kOp = "list_ctor";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  INT32 count = 0;
  HANDLE last = nullptr;
  if (!walk_chain(first, kOp, &count, &last)) return false;
  l->count = count;
  l->head = first;
  l->tail = last;
  l->current = first;
  return true;
}

BOOL list_delete(HANDLE list, list_destroy_fn destroy) {
  static const char *const kOp = "list_delete";
  if (list == nullptr) return false;
  if (!list_empty(list, destroy)) return tvx::qualify(kOp);
  handle_free(list, kOp);
  return true;
}

BOOL list_empty(HANDLE list, list_destroy_fn destroy) {
  static const char *const kOp = "list_empty";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  for (l->current = l->head; l->current != nullptr; l->current = l->head)
    if (!remove_current(*l, destroy, kOp)) return false;
  return true;
}

BOOL list_append_head(HANDLE list, HANDLE object) {
  static const char *const kOp = "list_append_head";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  HANDLE node = listnode_new(object, nullptr, l->head);
  if (node == nullptr) return tvx::qualify(kOp);
  if (l->head == nullptr) {
    l->tail = node;
  } else if (!listnode_set_prev(l->head, node)) {
    listnode_dtor(node);
    return tvx::qualify(kOp);
  }
  ++l->count;
  l->head = node;
  l->current = node;
  return true;
}

BOOL list_append_tail(HANDLE list, HANDLE object) {
  static const char *const kOp = "list_append_tail";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  HANDLE node = listnode_new(object, l->tail, nullptr);
  if (node == nullptr) return tvx::qualify(kOp);
  if (l->tail == nullptr) {
    l->head = node;
  } else if (!listnode_set_next(l->tail, node)) {
    listnode_dtor(node);
    return tvx::qualify(kOp);
  }
  ++l->count;
  l->tail = node;
  l->current = node;
  return true;
}

BOOL list_remove(HANDLE list, list_destroy_fn destroy) {
  static const char *const kOp = "list_remove";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  return remove_current(*l, destroy, kOp);
}

BOOL list_remove_object(HANDLE list, HANDLE key, list_match_fn match, list_destroy_fn destroy) {
  return list_find(list, key, match) && list_remove(list, destroy);
}

BOOL list_head(HANDLE list) {
  Locked<ListRecord> l(list, "list_head");
  if (!l) return tvx::qualify("list_head");
  l->current = l->head;
  return true;
}

BOOL list_tail(HANDLE list) {
  Locked<ListRecord> l(list, "list_tail");
  if (!l) return tvx::qualify("list_tail");
  l->current = l->tail;
  return true;
}

BOOL list_next(HANDLE list) {
  Locked<ListRecord> l(list, "list_next");
  if (!l) return tvx::qualify("list_next");
  return step(*l, true, "list_next");
}

BOOL list_prev(HANDLE list) {
  Locked<ListRecord> l(list, "list_prev");
  if (!l) return tvx::qualify("list_prev");
  return step(*l, false, "list_prev");
}

BOOL list_more(HANDLE list) {
  Locked<ListRecord> l(list, "list_more");
  if (!l) return tvx::qualify("list_more");
  return l->current != nullptr;
}

INT32 list_size(HANDLE list) {
  Locked<ListRecord> l(list, "list_size");
  if (!l) return tvx::qualify("list_size");
  return l->count;
}

HANDLE list_get_current(HANDLE list) {
  Locked<ListRecord> l(list, "list_get_current");
  if (!l) {
    tvx::qualify("list_get_current");
    return nullptr;
  }
  return l->current;
}

BOOL list_set_current(HANDLE list, HANDLE node) {
  Locked<ListRecord> l(list, "list_set_current");
  if (!l) return tvx::qualify("list_set_current");
  l->current = node;
  return true;
}

HANDLE list_get_object(HANDLE list) {
  HANDLE object = nullptr;
  list_get_object_x(list, &object);
  return object;
}

BOOL list_get_object_x(HANDLE list, HANDLE *out) {
  static const char *const kOp = "list_get_object_x";
  *out = nullptr;
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  return current_object(*l, kOp, out);
}

HANDLE list_get_next_object(HANDLE list) {
  static const char *const kOp = "list_get_next_object";
  Locked<ListRecord> l(list, kOp);
  if (!l) {
    tvx::qualify(kOp);
    return nullptr;
  }
  ListRecord ahead = *l;
  HANDLE object = nullptr;
  if (!step(ahead, true, kOp) || !current_object(ahead, kOp, &object)) return nullptr;
  return object;
}

BOOL list_set_object(HANDLE list, HANDLE object) {
  static const char *const kOp = "list_set_object";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  return set_current_object(*l, object, kOp);
}

BOOL list_nth(HANDLE list, INT32 n) {
  Locked<ListRecord> l(list, "list_nth");
  if (!l) return tvx::qualify("list_nth");
  return nth(*l, n, "list_nth");
}

HANDLE list_get_nth_object(HANDLE list, INT32 n) {
  HANDLE object = nullptr;
  list_get_nth_object_x(list, n, &object);
  return object;
}

BOOL list_get_nth_object_x(HANDLE list, INT32 n, HANDLE *out) {
  static const char *const kOp = "list_get_nth_object_x";
  *out = nullptr;
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  return nth(*l, n, kOp) && current_object(*l, kOp, out);
}

BOOL list_find(HANDLE list, HANDLE key, list_match_fn match) {
  static const char *const kOp = "list_find";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  return find(*l, key, match, kOp);
}

BOOL list_find_object(HANDLE list, HANDLE key, list_match_fn match, HANDLE *out) {
  static const char *const kOp = "list_find_object";
  bool found = list_find(list, key, match);
  list_get_object_x(list, out);
  if (tvx::error_pending()) return tvx::qualify(kOp);
  return found;
}

BOOL list_reverse(HANDLE list) {
  static const char *const kOp = "list_reverse";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  HANDLE old_head = l->head;
  l->head = listnode_reverse(old_head, nullptr);
  l->tail = old_head;
  l->current = l->head;
  return !tvx::error_pending();
}

BOOL list_sort(HANDLE list, list_order_fn out_of_order) {
  static const char *const kOp = "list_sort";
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  const INT32 n = l->count;
  for (INT32 pass = 1; pass < n; ++pass) {
    l->current = l->head;
    for (INT32 k = 0; k < n - pass; ++k) {
      ListRecord ahead = *l;
      HANDLE a = nullptr;
      HANDLE b = nullptr;
      if (!current_object(*l, kOp, &a) || !step(ahead, true, kOp) ||
          !current_object(ahead, kOp, &b))
        return false;
      // A NULL element is not compared and the cursor stays where it is: the rest of the pass
      // keeps meeting the same pair.
      if (a == nullptr || b == nullptr) continue;
      if (out_of_order(a, b)) {
        if (!set_current_object(*l, b, kOp) || !step(*l, true, kOp) ||
            !set_current_object(*l, a, kOp))
          return false;
      } else if (!step(*l, true, kOp)) {
        return false;
      }
    }
  }
  return true;
}

BOOL list_print(HANDLE list, list_print_fn print, FILE *stream) {
  static const char *const kOp = "list_print";
  if (list == nullptr) {
    std::fputs("NULL list\n", stream);
    std::fflush(stream);
    return true;
  }
  Locked<ListRecord> l(list, kOp);
  if (!l) return tvx::qualify(kOp);
  for (HANDLE node = l->head; node != nullptr;) {
    NodeRecord n{};
    if (!read_node(node, kOp, &n)) break;
    print(n.object, stream);
    node = n.next;
  }
  return true;
}

}  // extern "C"
