// Internals shared by the block allocator, its free and its unlock.
#pragma once

#include "tvx/memory.h"

namespace tvx {

bool memory_trace();
void set_memory_trace(bool on);

// Offset of the guard word from the header, when the header's own figures agree with each other
// and with the block the platform holds; 0 when they do not.
DWORD guard_offset(const memrec *rec);

inline memrec *header_of(void *contents) {
  return reinterpret_cast<memrec *>(static_cast<char *>(contents) - TVX_BLOCK_HEADER);
}
inline void *contents_of(memrec *rec) {
  return reinterpret_cast<char *>(rec) + TVX_BLOCK_HEADER;
}

}  // namespace tvx
