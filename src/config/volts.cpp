// The VOLTAGES section, and the tables that name each voltage id and say on which controller
// channel, of which type and with which access it is read or set.
#include <cstdio>
#include <iterator>

#include "config/extract.h"
#include "foundation/fail.h"
#include "tvx/config.h"
#include "tvx/memory.h"
#include "tvx/sections.h"

namespace {

constexpr const char *kNames[] = {
    "vod",
    "vog",
    "vrbg",
    "vrd",
    "vabg",
    "vabd",
    "vssl",
    "vssh",
    "ids",
    "vrol",
    "vroh",
    "vrspl",
    "vrsph",
    "viml",
    "vimh",
    "vstol",
    "vstoh",
    "analog_out",
    "vtherm",
    "agrnd",
    "v6_4",
    "v4_27",
    "vhs_2",
    "minus5",
    "minus5a",
    "minus15",
    "plus5",
    "plus5a",
    "plus15",
    "plus20",
    "plus20_2",
    "sensor",
    "ccdtmp1",
    "ccdtmp2",
    "sinktemp",
    "pcbtemp",
    "shutsense",
    "stage1",
    "stage2",
    "stage3",
    "stage4",
    "analog_in",
    "coarseblacklevel",
    "coarseoffset",
    nullptr,
    "droop1",
    "droop2",
    "fineblack1",
    "fineblack2",
};

struct VoltageId {
  INT32 id;
  INT32 channel;
  INT32 type;
  INT32 access;
};
// Channels 2, 8 and 20 each serve two ids, and channel 21 none: the controller's wiring.
constexpr VoltageId kVoltageIds[] = {
    {0, 0, 256, 2},    {2, 1, 256, 2},    {6, 2, 256, 2},    {7, 2, 256, 2},    {3, 3, 256, 2},
    {4, 4, 256, 2},    {1, 5, 256, 2},    {5, 6, 256, 2},    {8, 7, 256, 2},    {13, 8, 256, 2},
    {15, 8, 256, 2},   {14, 9, 256, 2},   {16, 10, 256, 2},  {9, 11, 256, 2},   {10, 12, 256, 2},
    {11, 13, 256, 2},  {12, 14, 256, 2},  {18, 15, 256, 2},  {19, 24, 1024, 0}, {25, 25, 1024, 0},
    {24, 26, 1024, 0}, {27, 27, 1024, 0}, {26, 28, 1024, 0}, {28, 29, 1024, 0}, {30, 30, 1024, 0},
    {22, 31, 1024, 0}, {21, 32, 1024, 0}, {20, 33, 1024, 0}, {36, 34, 256, 0},  {32, 35, 512, 0},
    {34, 36, 512, 0},  {35, 37, 512, 0},  {41, 38, 1024, 0}, {37, 39, 256, 0},  {38, 40, 256, 0},
    {39, 41, 256, 0},  {40, 42, 256, 0},  {17, 16, 256, 1},  {42, 17, 256, 1},  {43, 18, 256, 1},
    {44, 19, 256, 1},  {45, 20, 256, 1},  {46, 20, 256, 1},  {47, 22, 256, 1},  {48, 23, 256, 1},
    {23, -1, 0, 0},    {29, -1, 0, 0},    {31, -1, 0, 0},    {33, -1, 0, 0},
};
static_assert(std::size(kVoltageIds) == 49);

const VoltageId *voltage_id(INT32 id) {
  for (const VoltageId &row : kVoltageIds)
    if (row.id == id) return &row;
  return nullptr;
}

}  // namespace

extern "C" {

const char *volts_id_name(INT32 id) {
  if (id < 0 || id >= static_cast<INT32>(std::size(kNames)) || kNames[id] == nullptr)
    return "Unknown voltage name.";
  return kNames[id];
}

INT32 voltageid_map(INT32 id) {
  const VoltageId *row = voltage_id(id);
  return row != nullptr ? row->channel : -1;
}

INT32 voltageid_type(INT32 id) {
  const VoltageId *row = voltage_id(id);
  return row != nullptr ? row->type : 0;
}

INT32 voltageid_access(INT32 id) {
  const VoltageId *row = voltage_id(id);
  return row != nullptr ? row->access : 0;
}

BOOL volts_extract(volts *record, HANDLE config) {
  static const char *const kOp = "volts_extract";
  for (INT32 k = 0; k < VOLTS_COUNT; ++k) {
    char name[CONFIG_MAX_STRING + 1];
    voltage &v = record->entries[k];
    if (!config_extract_section(config, "VOLTAGES", k + 1, 1, "sff", name, &v.nominal,
                                &v.tolerance)) {
      return tvx::config::unable(kOp, volts_id_name(k), "VOLTAGES");
    }
    char *copy = string_duplicate(name);
    if (copy == nullptr) return tvx::qualify(kOp);
    if (v.name != nullptr) standard_free(v.name, kOp);
    v.name = copy;
  }
  return TRUE;
}

void volts_print(const volts *record, FILE *stream) {
  std::fputs("volts(\n", stream);
  // Half the table, two to a line: enough to tell a file from another.
  for (int k = 0; k <= 20; ++k) {
    const voltage &v = record->entries[k];
    std::fprintf(stream, "voltage(%d, %s, %.2f, %.2f)", k, v.name != nullptr ? v.name : "",
                 v.nominal, v.tolerance);
    std::fputs(k % 2 == 0 ? ", " : "\n", stream);
  }
  std::fputs(")\n", stream);
}

void volts_dtor(volts *record) {
  for (voltage &v : record->entries)
    if (v.name != nullptr) {
      standard_free(v.name, "volts_dtor");
      v.name = nullptr;
    }
}

}  // extern "C"
