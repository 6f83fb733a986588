// The config record behind its handle.
#pragma once

#include "tvx/config.h"

namespace tvx::config {

struct Slot {
  char *name;
  INT32 alignment;  // CONFIG_HORIZONTAL, CONFIG_VERTICAL; 2 while empty
  INT32 id_expect;  // CONFIG_ATLEAST, CONFIG_ONLY; 2 while empty
  INT32 **definition;
  INT32 **actual;
};

struct Record {
  Slot sections[CONFIG_MAX_SECTIONS];
  INT32 section_count;
  char *text;  // the files' contents and the end byte 0xFF
  DWORD text_size;
};

constexpr INT32 kEmptySlot = 2;

}  // namespace tvx::config
