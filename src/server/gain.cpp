// The gain table: one row per pixel rate and sensitivity, read position by position from the
// GAIN_TABLE section, and the arithmetic that turns a row into electrons per ADC level.
#include <cstdio>
#include <cstring>
#include <iterator>

#include "config/extract.h"
#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/config.h"
#include "tvx/gain.h"
#include "tvx/list.h"
#include "tvx/memory.h"

namespace {

constexpr INT32 kGainTableErrors = 0x2013;
constexpr INT32 kGainConstantErrors = 0x201c;
constexpr INT32 kCcdValues = 0x2016;
constexpr INT32 kProgrammer = 0x1040;

bool matches(HANDLE setting, HANDLE key, bool with_sensitivity) {
  tvx::Locked<gainsetting> row(setting, "gain_findfn1");
  const auto *wanted = static_cast<const gainsetting *>(key);
  return row && wanted != nullptr && row->pixel_rate == wanted->pixel_rate &&
         (!with_sensitivity || row->sensitivity == wanted->sensitivity);
}

// Why a product of the factors came to nothing, in the order the operator checks them.
const char *zero_factor(const gainsetting &s) {
  if (s.pgain == 0) return "programmable gain is 0";
  if (s.integr_time == 0.0) return "integration time is 0";
  if (s.adc_polarity != 0) return "ccd gain is 0";
  return "adc polarity is 0";
}

}  // namespace

extern "C" {

HANDLE gainsetting_new(INT32 pixel_rate, INT32 sensitivity, double ms_per_pixel, double integr_time,
                       INT32 pgain, double time_const, INT32 adc_polarity, const char *comment) {
  static const char *const kOp = "gainsetting_new";
  HANDLE setting = handle_allocate(1, sizeof(gainsetting), MEM_GAINSETTING);
  if (setting == nullptr) return tvx::qualify(kOp), nullptr;
  bool ok = false;
  {
    tvx::Locked<gainsetting> s(setting, kOp);
    if (s) {
      *s = gainsetting{
          pgain,      adc_polarity, sensitivity,
          pixel_rate, ms_per_pixel, integr_time,
          time_const, 0.0,          string_duplicate(comment != nullptr ? comment : "")};
      ok = s->comment != nullptr;
    }
  }
  if (!ok) {
    gainsetting_delete(setting);
    return tvx::qualify(kOp), nullptr;
  }
  return setting;
}

void gainsetting_delete(HANDLE setting) {
  if (setting == nullptr) return;
  {
    tvx::Locked<gainsetting> s(setting, "gainsetting_delete");
    if (!s) return;
    if (s->comment != nullptr) standard_free(s->comment, "gainsetting_delete");
  }
  handle_free(setting, "gainsetting_delete");
}

BOOL gain_extract_table(gain *record, HANDLE config) {
  static const char *const kOp = "gain_extract_table";
  static const char *const kRows[] = {"pixel_rate", "sensitivity", "ms_per_pixel", "integr_time",
                                      "pgain",      "time_const",  "adc_polarity", "comment"};
  if (record->table != nullptr) list_delete(record->table, gainsetting_delete);
  record->table = list_new();
  if (record->table == nullptr) return tvx::qualify(kOp);
  for (INT32 position = 2;; ++position) {
    INT32 pixel_rate = 0, sensitivity = 0, pgain = 0, polarity = 0;
    double ms = 0, integration = 0, time_const = 0;
    char comment[CONFIG_MAX_STRING + 1] = {};
    void *destinations[] = {&pixel_rate, &sensitivity, &ms,       &integration,
                            &pgain,      &time_const,  &polarity, comment};
    static const char *const kLetters[] = {"i", "i", "f", "f", "i", "f", "i", "s"};
    INT32 failed = -1;
    for (INT32 row = 0; row < 8 && failed < 0; ++row)
      if (!config_extract_section(config, "GAIN_TABLE", row + 1, position, kLetters[row],
                                  destinations[row]))
        failed = row;
    if (failed >= 0) {
      // The table ends at the first position some row lacks; only an error makes that a failure.
      if (tvx::error_pending())
        return tvx::config::unable(kOp, kRows[failed], "GAIN_TABLE", {kGainTableErrors});
      break;
    }
    HANDLE setting = gainsetting_new(pixel_rate, sensitivity, ms, integration, pgain, time_const,
                                     polarity, comment);
    if (setting == nullptr || !list_append_tail(record->table, setting)) {
      gainsetting_delete(setting);
      return tvx::qualify(kOp);
    }
  }
  return TRUE;
}

BOOL gain_extract_const(gain *record, HANDLE config) {
  static const char *const kOp = "gain_extract_const";
  if (!config_extract_section(config, "GAIN_CONSTANTS", 1, 2, "f", &record->feg))
    return tvx::config::unable(kOp, "feg", "GAIN_CONSTANTS", {kGainConstantErrors});
  if (!config_extract_section(config, "GAIN_CONSTANTS", 2, 2, "i", &record->bit_weight))
    return tvx::config::unable(kOp, "bit_weight", "GAIN_CONSTANTS", {kGainConstantErrors});
  if (!config_extract_section(config, "GAIN_CONSTANTS", 3, 2, "f", &record->fet_switch_time))
    return tvx::config::unable(kOp, "fet_switch_time", "GAIN_CONSTANTS", {kGainConstantErrors});
  return TRUE;
}

BOOL gain_findfn1(HANDLE setting, HANDLE key) {
  return matches(setting, key, true);
}

BOOL gain_find_pixel_rate1(HANDLE setting, HANDLE key) {
  return matches(setting, key, false);
}

BOOL gain_init(gain *record, INT32 pixel_rate, INT32 sensitivity) {
  static const char *const kOp = "gain_init";
  if (record == nullptr) tvx::require_failed(96, "ginit");
  record->current.pixel_rate = pixel_rate;
  record->current.sensitivity = sensitivity;
  HANDLE found = nullptr;
  if (record->table == nullptr ||
      !list_find_object(record->table, &record->current, gain_findfn1, &found) ||
      found == nullptr) {
    if (tvx::error_pending()) return tvx::qualify(kOp);
    return tvx::fail(ERR_NO_DATA, 0, kOp, {kGainTableErrors, kCcdValues, kProgrammer},
                     "setting (pixel rate %ld, sensitivity %ld) not found in the gain table.",
                     long{pixel_rate}, long{sensitivity});
  }
  tvx::Locked<gainsetting> row(found, kOp);
  if (!row) return tvx::qualify(kOp);
  char *comment = string_duplicate(row->comment);
  if (comment == nullptr) return tvx::qualify(kOp);
  if (record->current.comment != nullptr) standard_free(record->current.comment, kOp);
  record->current = *row;
  record->current.comment = comment;
  return TRUE;
}

BOOL gain_electrons_per_level(const gain *record, gainsetting *setting) {
  static const char *const kOp = "server_calc_electrons_per_level";
  const double d = (record->fet_switch_time + setting->integr_time) * record->ccd_gain *
                   static_cast<double>(setting->pgain) * static_cast<double>(setting->adc_polarity);
  const char *problem = nullptr;
  double result = 0.0;
  if (d == 0.0) {
    problem = zero_factor(*setting);
  } else {
    result = static_cast<double>(record->bit_weight) * setting->time_const / d;
    if (result == 0.0)
      problem = record->bit_weight != 0 ? "time constant is 0" : "ADC bit weight is 0";
  }
  setting->electrons_per_level = result;
  if (problem != nullptr)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {kGainTableErrors, kGainConstantErrors}, "%s",
                     problem);
  return TRUE;
}

void gain_dtor(gain *record) {
  if (record->table != nullptr) list_delete(record->table, gainsetting_delete);
  record->table = nullptr;
  if (record->current.comment != nullptr) standard_free(record->current.comment, "gain_dtor");
  record->current.comment = nullptr;
}

void gain_print_setting(const gainsetting *s, FILE *stream) {
  std::fprintf(stream,
               "gainsetting(pixel_rate %ld, sensitivity %ld, ms_per_pixel %.4f, integr_time %.2f, "
               "pgain %ld, time_const %.2f, adc_polarity %ld, electrons_per_level %.3f, %s)\n",
               long{s->pixel_rate}, long{s->sensitivity}, s->ms_per_pixel, s->integr_time,
               long{s->pgain}, s->time_const, long{s->adc_polarity}, s->electrons_per_level,
               s->comment != nullptr ? s->comment : "");
}

BOOL gain_print_setting_handle(HANDLE setting, FILE *stream) {
  tvx::Locked<gainsetting> s(setting, "gain_print_setting_handle");
  if (!s) return tvx::qualify("gain_print_setting_handle");
  gain_print_setting(s.get(), stream);
  return TRUE;
}

BOOL gain_printfn1(HANDLE setting, FILE *stream) {
  return gain_print_setting_handle(setting, stream);
}

void gain_print(const gain *record, FILE *stream) {
  std::fprintf(stream, "gain(bit_weight %ld, feg %.3f, ccd_gain %.3f, fet_switch_time %.3f)\n",
               long{record->bit_weight}, record->feg, record->ccd_gain, record->fet_switch_time);
  std::fputs("current ", stream);
  gain_print_setting(&record->current, stream);
  if (record->table != nullptr) list_print(record->table, gain_printfn1, stream);
}

}  // extern "C"
