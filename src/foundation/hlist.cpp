// Rows of a definition file: each value is an identifier and the offset of its text in the text
// the parser keeps, so a row costs one word a value and no copies of the text.
#include <cstdio>

#include "foundation/fail.h"
#include "tvx/list.h"
#include "tvx/memory.h"

extern "C" {

INT32 *hlist_new(INT32 n) {
  static const char *const kOp = "hlist_new";
  if (n < 0) {
    tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1051}, "a row cannot hold %ld values.", long{n});
    return nullptr;
  }
  auto *h = static_cast<INT32 *>(standard_allocate(n + 1, sizeof(INT32), MEM_PLAIN));
  if (h == nullptr) tvx::qualify(kOp, "while making a row of %ld values.", long{n});
  return h;
}

void hlist_delete(INT32 *h) {
  if (h != nullptr) standard_free(h, "hlist_delete");
}

INT32 hlist_size(const INT32 *h) {
  INT32 n = 0;
  if (h != nullptr)
    while (h[n] != 0) ++n;
  return n;
}

INT32 hlist_id(INT32 value) {
  return value >> 16;
}

const char *hlist_string(const char *text, INT32 value) {
  return text + (static_cast<DWORD>(value) & 0xFFFFu);
}

void vlist_delete(INT32 **v) {
  if (v == nullptr) return;
  for (INT32 **row = v; *row != nullptr; ++row) standard_free(*row, "vlist_delete");
  standard_free(v, "vlist_delete");
}

void hlist_print(const char *text, INT32 *const *v, FILE *stream) {
  if (v == nullptr) return;
  for (INT32 *const *row = v; *row != nullptr; ++row) {
    std::fputs("\n{", stream);
    for (const INT32 *value = *row; *value != 0; ++value)
      std::fprintf(stream, "[%s]", hlist_string(text, *value));
    std::fputs("}", stream);
  }
}

}  // extern "C"
