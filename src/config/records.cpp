// The readers that turn the hardware and CCD sections into the program's records, and their
// print operations.
#include <cstdio>
#include <cstring>
#include <iterator>

#include "config/extract.h"
#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/config.h"
#include "tvx/list.h"
#include "tvx/memory.h"
#include "tvx/sections.h"
#include "tvx/values.h"

namespace {

using tvx::config::unable;
using Text = char[CONFIG_MAX_STRING + 1];

const char *yes_no(BYTE flag) {
  return flag ? "TRUE" : "FALSE";
}

// The CCD reader names the last identifier of its table, whichever row it gave up on, then adds
// its own name as well.
bool ccd_unable(const char *routine) {
  if (!tvx::error_pending())
    tvx::fail(ERR_NO_DATA, 0, routine, {}, "unable to extract '%s' from section '%s'.",
              "parallel_transfers", "CCD");
  return tvx::qualify(routine);
}

// Replaces an owned string with a copy of `text`.
bool own(char **field, const char *text, const char *routine) {
  char *copy = string_duplicate(text);
  if (copy == nullptr) return tvx::qualify(routine);
  if (*field != nullptr) standard_free(*field, routine);
  *field = copy;
  return true;
}

void disown(char **field, const char *routine) {
  if (*field != nullptr) standard_free(*field, routine);
  *field = nullptr;
}

}  // namespace

extern "C" {

// ---- DEVICE ------------------------------------------------------------------------------------

BOOL device_extract(device *record, HANDLE config) {
  static const char *const kOp = "device_extract";
  Text name;
  if (!config_extract_section(config, "DEVICE", 1, 2, "s", name))
    return unable(kOp, "name", "DEVICE");
  if (!config_extract_section(config, "DEVICE", 2, 2, "i", &record->base_address))
    return unable(kOp, "base_address", "DEVICE");
  // The unit, where the file declares one third, picks one of several cards; 0 otherwise.
  record->unit = 0;
  if (!config_extract_section(config, "DEVICE", 3, 2, "i", &record->unit) && tvx::error_pending())
    return tvx::qualify(kOp);
  return own(&record->name, name, kOp);
}

void device_print(const device *record, FILE *stream) {
  std::fprintf(stream, "device (name %s, base_addr %lX, unit %ld)\n",
               record->name != nullptr ? record->name : "",
               static_cast<unsigned long>(record->base_address), long{record->unit});
}

void device_dtor(device *record) {
  disown(&record->name, "device_dtor");
}

// ---- TRANSPUTER --------------------------------------------------------------------------------

BOOL trans_extract(trans *record, HANDLE config) {
  static const char *const kOp = "trans_extract";
  Text files[4];
  struct Row {
    const char *identifier;
    const char *letter;
    void *destination;
  };
  const Row rows[] = {
      {"io_timeout", "i", &record->io_timeout},
      {"linkspeed", "i", &record->linkspeed},
      {"boot_from_rom", "b", &record->boot_from_rom},
      {"atlinit_file", "s", files[0]},
      {"boot_file", "s", files[1]},
      {"procinit_file", "s", files[2]},
      {"camera_file", "s", files[3]},
      {"concurrent", "b", &record->concurrent},
  };
  for (INT32 i = 0; i < static_cast<INT32>(std::size(rows)); ++i)
    if (!config_extract_section(config, "TRANSPUTER", i + 1, 2, rows[i].letter,
                                rows[i].destination))
      return unable(kOp, rows[i].identifier, "TRANSPUTER");
  char **owned[] = {&record->atlinit_file, &record->boot_file, &record->procinit_file,
                    &record->camera_file};
  for (int i = 0; i < 4; ++i)
    if (!own(owned[i], files[i], kOp)) return false;
  return TRUE;
}

void trans_print(const trans *record, FILE *stream) {
  auto shown = [](const char *s) { return s != nullptr ? s : ""; };
  std::fprintf(stream,
               "trans(io_timeout %ld, linkspeed %ld, boot_from_rom '%s', atlinit_file %s, "
               "boot_file %s, procinit_file %s, camera_file %s, concurrent '%s')\n",
               long{record->io_timeout}, long{record->linkspeed}, yes_no(record->boot_from_rom),
               shown(record->atlinit_file), shown(record->boot_file), shown(record->procinit_file),
               shown(record->camera_file), yes_no(record->concurrent));
}

void trans_dtor(trans *record) {
  disown(&record->atlinit_file, "trans_dtor");
  disown(&record->boot_file, "trans_dtor");
  disown(&record->procinit_file, "trans_dtor");
  disown(&record->camera_file, "trans_dtor");
}

// ---- ADC ---------------------------------------------------------------------------------------

BOOL adc_extract(adc *record, HANDLE config) {
  struct Row {
    const char *letter;
    INT32 row;
    INT32 position;
    void *destination;
  };
  const Row rows[] = {
      {"i", 1, 2, &record->auxiliary},  {"i", 2, 2, &record->mode},
      {"b", 3, 2, &record->dummy_load}, {"f", 4, 2, &record->h1h2l1l2},
      {"i", 5, 2, &record->const1},     {"i", 6, 2, &record->const2},
      {"i", 7, 2, &record->const3},     {"i", 8, 2, &record->shutter[0]},
      {"i", 8, 3, &record->shutter[1]}, {"i", 8, 4, &record->shutter[2]},
      {"i", 8, 5, &record->shutter[3]},
  };
  // Every extraction is made and only the last decides: an earlier row that is missing without an
  // error leaves its field as it was.
  BOOL last = FALSE;
  for (const Row &r : rows)
    last = config_extract_section(config, "ADC", r.row, r.position, r.letter, r.destination);
  return last ? TRUE : unable("adc_extract", "shutter", "ADC", {}, false);
}

void adc_print(const adc *record, FILE *stream) {
  std::fprintf(stream,
               "adc(auxiliary %ld, mode %ld, dummy load '%s', h1h2l1l2 %ld.%ld, c1 %ld, c2 %ld, "
               "c3 %ld )\n",
               long{record->auxiliary}, long{record->mode}, yes_no(record->dummy_load),
               static_cast<long>(whole_part(record->h1h2l1l2)),
               static_cast<long>(frac_part(record->h1h2l1l2, 2)), long{record->const1},
               long{record->const2}, long{record->const3});
}

// ---- CCD ---------------------------------------------------------------------------------------

BOOL ccd_extract(ccd *record, HANDLE config) {
  static const char *const kOp = "ccd_extract";
  Text texts[4];
  struct Row {
    const char *letter;
    void *destination;
  };
  const Row rows[] = {
      {"s", texts[0]},
      {"s", texts[1]},
      {"s", texts[2]},
      {"s", texts[3]},
      {"i", &record->xsize},
      {"i", &record->ysize},
      {"i", &record->xbin},
      {"i", &record->ybin},
      {"i", &record->pixel_rate},
      {"i", &record->sensitivity},
      {"i", &record->blacklevel},
      {"i", &record->serial_clocking},
      {"i", &record->parallel_clocking},
      {"f", &record->fegain},
      {"i", &record->coupling},
      {"i", &record->parallel_transfers},
  };
  for (Text &t : texts) t[0] = '\0';
  BOOL last = FALSE;
  for (INT32 i = 0; i < static_cast<INT32>(std::size(rows)); ++i)
    last = config_extract_section(config, "CCD", i + 1, 2, rows[i].letter, rows[i].destination);
  if (!last) return ccd_unable(kOp);
  char **owned[] = {&record->type, &record->mode, &record->serial_no, &record->product_reference};
  for (int i = 0; i < 4; ++i)
    if (!own(owned[i], texts[i], kOp)) return false;
  INT32 *area = record->active_area;
  if (!config_extract_section(config, "CCD", 17, 2, "iiii", &area[0], &area[1], &area[2], &area[3]))
    return ccd_unable(kOp);
  // The parallel timing is as long as the file makes it, up to its capacity; it never fails.
  record->ptiming_count = 0;
  for (INT32 pair = 0; pair < CCD_MAX_TIMING; ++pair) {
    INT32 first = 0, second = 0;
    if (!config_extract_section(config, "CCD", 18, 2 + 2 * pair, "ii", &first, &second)) break;
    record->ptiming1[pair] = static_cast<INT16>(first);
    record->ptiming2[pair] = static_cast<INT16>(second);
    ++record->ptiming_count;
  }
  return TRUE;
}

void ccd_print(const ccd *record, FILE *stream) {
  std::fprintf(stream,
               "ccd(blacklevel %ld, xbin %ld, ybin %ld, xsize %ld, ysize %ld, pixel_rate %ld, "
               "sensitivity %ld, type %s\n",
               long{record->blacklevel}, long{record->xbin}, long{record->ybin},
               long{record->xsize}, long{record->ysize}, long{record->pixel_rate},
               long{record->sensitivity}, record->type != nullptr ? record->type : "");
  std::fprintf(stream, "active_area (%ld, %ld, %ld, %ld) parallel_timing(nof %d",
               long{record->active_area[0]}, long{record->active_area[1]},
               long{record->active_area[2]}, long{record->active_area[3]},
               int{record->ptiming_count});
  for (int i = 0; i < record->ptiming_count && i < CCD_MAX_TIMING; ++i)
    std::fprintf(stream, "state(%d,%d,%d)", i, int{record->ptiming1[i]}, int{record->ptiming2[i]});
  std::fprintf(stream, "parallel_transfers (%d)", static_cast<int>(record->parallel_transfers));
  std::fputs(")\n", stream);
}

void ccd_dtor(ccd *record) {
  disown(&record->type, "ccd_dtor");
  disown(&record->mode, "ccd_dtor");
  disown(&record->serial_no, "ccd_dtor");
  disown(&record->product_reference, "ccd_dtor");
}

}  // extern "C"

namespace tvx::config {

bool unable(const char *routine, const char *identifier, const char *section,
            std::initializer_list<INT32> causes, bool full_stop) {
  if (tvx::error_pending()) return tvx::qualify(routine);
  return tvx::fail(ERR_NO_DATA, 0, routine, causes, "unable to extract '%s' from section '%s'%s",
                   identifier, section, full_stop ? "." : "");
}

}  // namespace tvx::config
