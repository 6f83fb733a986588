// Tagged values: one slot read according to a type word. A string value is the value's own copy.
#include <cstdio>
#include <cstring>

#include "foundation/fail.h"
#include "foundation/gdt.h"
#include "foundation/locked.h"
#include "tvx/memory.h"
#include "tvx/values.h"

namespace {

using tvx::Locked;

struct GdtRecord {
  INT32 type;
  union {
    INT32 ival;
    double fval;
    char *sval;
    BYTE bval;
  };
};

long changes = 0;

struct TypeName {
  INT32 type;
  const char *name;
};
constexpr TypeName kTypes[] = {
    {GDT_IVAL, "integer"},
    {GDT_FVAL, "floating point"},
    {GDT_SVAL, "string"},
    {GDT_BVAL, "boolean"},
};

const char *type_name(INT32 type) {
  for (const TypeName &t : kTypes)
    if (t.type == type) return t.name;
  return nullptr;
}

bool unsupported(const char *op) {
  return tvx::fail(ERR_PROGRAMMER, 0, op, {}, "type not supported\n");
}

// The caller's value as a record, its string copied. Nothing is kept when this fails.
bool take(INT32 type, const void *value, const char *op, GdtRecord *out) {
  if (type_name(type) == nullptr) return unsupported(op);
  if (value == nullptr)
    return tvx::fail(ERR_NO_DATA, 0, op, {0x1040}, "no %s value given.", type_name(type));
  *out = GdtRecord{};
  out->type = type;
  switch (type) {
    case GDT_IVAL:
      std::memcpy(&out->ival, value, sizeof out->ival);
      break;
    case GDT_FVAL:
      std::memcpy(&out->fval, value, sizeof out->fval);
      break;
    case GDT_SVAL:
      out->sval = string_duplicate(static_cast<const char *>(value));
      if (out->sval == nullptr) return tvx::qualify(op);
      break;
    default:
      out->bval = *static_cast<const BYTE *>(value);
      break;
  }
  return true;
}

void release(GdtRecord &rec) {
  if (rec.type == GDT_SVAL && rec.sval != nullptr) standard_free(rec.sval, "gdt_dtor");
  rec.sval = nullptr;
}

// The slot as the value-taking calls want it: a pointer to the value, or the text itself.
const void *slot(const GdtRecord &rec) {
  return rec.type == GDT_SVAL ? static_cast<const void *>(rec.sval) : &rec.ival;
}

// Reads the record under a lock for the reader `op`; a value of another type is refused.
template <class T, class Read>
T read(HANDLE gdt, INT32 type, const char *op, Read get) {
  Locked<GdtRecord> g(gdt, op);
  if (!g) {
    tvx::qualify(op);
    return T{};
  }
  if (g->type != type) {
    tvx::fail(ERR_PROGRAMMER, 0, op, {0x1040}, "value of type %s read as %s.",
              type_name(g->type) != nullptr ? type_name(g->type) : "unknown", type_name(type));
    return T{};
  }
  return get(*g);
}

// The value alone, as gdt_print1 writes it; NULL for a type that is not supported.
const char *value_text(const GdtRecord &rec, char *room, size_t size) {
  switch (rec.type) {
    case GDT_IVAL:
      std::snprintf(room, size, "%ld", long{rec.ival});
      return room;
    case GDT_FVAL:
      std::snprintf(room, size, "%.2f", rec.fval);
      return room;
    case GDT_SVAL:
      return rec.sval;
    case GDT_BVAL:
      return rec.bval ? "TRUE" : "FALSE";
    default:
      return nullptr;
  }
}

}  // namespace

namespace tvx {

long value_changes() {
  return changes;
}

}  // namespace tvx

extern "C" {

HANDLE gdt_new(INT32 type, const void *value) {
  static const char *const kOp = "gdt_new";
  HANDLE gdt = handle_allocate(1, sizeof(GdtRecord), MEM_GDT);
  if (gdt == nullptr) {
    tvx::qualify(kOp);
    return nullptr;
  }
  GdtRecord taken{};
  if (!take(type, value, kOp, &taken)) {
    tvx::qualify(kOp);
    handle_free(gdt, kOp);
    return nullptr;
  }
  {
    Locked<GdtRecord> g(gdt, kOp);
    if (!g) {
      release(taken);
      tvx::qualify(kOp);
      handle_free(gdt, kOp);
      return nullptr;
    }
    *g = taken;
  }
  ++changes;
  return gdt;
}

BOOL gdt_ctor(HANDLE gdt, INT32 type, const void *value) {
  static const char *const kOp = "gdt_ctor";
  Locked<GdtRecord> g(gdt, kOp);
  if (!g) return tvx::qualify(kOp);
  GdtRecord taken{};
  if (!take(type, value, kOp, &taken)) return tvx::qualify(kOp);
  *g = taken;
  return true;
}

void gdt_delete(HANDLE gdt) {
  static const char *const kOp = "gdt_delete";
  if (gdt == nullptr) return;
  {
    Locked<GdtRecord> g(gdt, kOp);
    if (!g) {
      tvx::qualify(kOp);
      return;
    }
    release(*g);
  }
  handle_free(gdt, kOp);
}

BOOL gdt_set(HANDLE gdt, INT32 type, const void *value) {
  static const char *const kOp = "gdt_set";
  Locked<GdtRecord> g(gdt, kOp);
  if (!g) return tvx::qualify(kOp);
  // The new value is taken before the old string goes, so a failure leaves the old value whole.
  GdtRecord taken{};
  if (!take(type, value, kOp, &taken)) return tvx::qualify(kOp);
  release(*g);
  *g = taken;
  ++changes;
  return true;
}

HANDLE gdt_duplicate(HANDLE gdt) {
  static const char *const kOp = "gdt_duplicate";
  Locked<GdtRecord> g(gdt, kOp);
  if (!g) {
    tvx::qualify(kOp);
    return nullptr;
  }
  HANDLE copy = gdt_new(g->type, slot(*g));
  if (copy == nullptr) tvx::qualify(kOp);
  return copy;
}

BOOL gdt_valid(HANDLE gdt) {
  Locked<GdtRecord> g(gdt, "gdt_valid");
  if (!g) return tvx::qualify("gdt_valid");
  return type_name(g->type) != nullptr;
}

BOOL gdt_assign(HANDLE to, HANDLE from) {
  static const char *const kOp = "gdt_assign";
  if (to == from) return gdt_valid(to);
  Locked<GdtRecord> f(from, kOp);
  if (!f) return tvx::qualify(kOp);
  if (!gdt_set(to, f->type, slot(*f))) return tvx::qualify(kOp);
  return true;
}

BOOL gdt_equal(HANDLE a, HANDLE b) {
  static const char *const kOp = "gdt_equal";
  Locked<GdtRecord> x(a, kOp);
  if (!x) return tvx::qualify(kOp);
  Locked<GdtRecord> y(b, kOp);
  if (!y) return tvx::qualify(kOp);
  if (x->type != y->type) return false;
  switch (x->type) {
    case GDT_IVAL:
      return x->ival == y->ival;
    case GDT_FVAL:
      return x->fval == y->fval;
    case GDT_SVAL:
      return std::strcmp(x->sval, y->sval) == 0;
    case GDT_BVAL:
      return x->bval == y->bval;
    default:
      return unsupported(kOp);
  }
}

INT32 gdt_get_type(HANDLE gdt) {
  Locked<GdtRecord> g(gdt, "gdt_get_type");
  if (!g) {
    tvx::qualify("gdt_get_type");
    return -1;
  }
  return g->type;
}

INT32 gdt_getIval(HANDLE gdt) {
  return read<INT32>(gdt, GDT_IVAL, "gdt_getIval", [](const GdtRecord &r) { return r.ival; });
}

double gdt_getFval(HANDLE gdt) {
  return read<double>(gdt, GDT_FVAL, "gdt_getFval", [](const GdtRecord &r) { return r.fval; });
}

const char *gdt_getSval(HANDLE gdt) {
  return read<const char *>(gdt, GDT_SVAL, "gdt_getSval",
                            [](const GdtRecord &r) -> const char * { return r.sval; });
}

BOOL gdt_getBval(HANDLE gdt) {
  return read<BOOL>(gdt, GDT_BVAL, "gdt_getBval",
                    [](const GdtRecord &r) -> BOOL { return r.bval != 0; });
}

BOOL gdt_print1(HANDLE gdt, FILE *stream) {
  static const char *const kOp = "gdt_print1";
  Locked<GdtRecord> g(gdt, kOp);
  if (!g) return tvx::qualify(kOp);
  char room[64];
  const char *text = value_text(*g, room, sizeof room);
  if (text != nullptr) std::fputs(text, stream);
  return true;
}

BOOL gdt_print2(HANDLE gdt, FILE *stream) {
  if (!gdt_print1(gdt, stream)) return tvx::qualify("gdt_print2");
  std::fputs(" ", stream);
  return true;
}

BOOL gdt_print3(HANDLE gdt, FILE *stream) {
  static const char *const kOp = "gdt_print3";
  Locked<GdtRecord> g(gdt, kOp);
  if (!g) return tvx::qualify(kOp);
  std::fputs("gdt(", stream);
  switch (g->type) {
    case GDT_IVAL:
      std::fprintf(stream, "ival, %ld", long{g->ival});
      break;
    case GDT_FVAL:
      std::fprintf(stream, "fval, %.2f", g->fval);
      break;
    case GDT_SVAL:
      std::fprintf(stream, "sval, %s", g->sval);
      break;
    case GDT_BVAL:
      std::fprintf(stream, "bval, %s", g->bval ? "TRUE" : "FALSE");
      break;
    default:
      break;
  }
  std::fputs(")", stream);
  std::fflush(stream);
  return true;
}

const char *gdt_printstr1(HANDLE gdt) {
  static const char *const kOp = "gdt_printstr1";
  static char result[264];
  result[0] = '\0';
  Locked<GdtRecord> g(gdt, kOp);
  if (!g) {
    tvx::qualify(kOp);
    return result;
  }
  char room[64];
  const char *text = value_text(*g, room, sizeof room);
  std::snprintf(result, sizeof result, "%s", text != nullptr ? text : "unknown type.");
  return result;
}

}  // extern "C"
