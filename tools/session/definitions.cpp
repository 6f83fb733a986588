// Reading the definition files through the library's own section readers, for what the camera
// does not tell: nominal voltages, the gain table's descriptions, the program list and whether
// the adapter is the simulator.
#include "definitions.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace session {

namespace {

// The parsed files, deleted on every path.
struct Config {
  HANDLE handle = nullptr;
  ~Config() {
    if (handle != nullptr) config_delete(handle);
  }
};

bool read_gains(HANDLE config, Definitions *out) {
  if (!config_check_section(config, "GAIN_TABLE")) return false;
  gain table{};
  bool ok = gain_extract_table(&table, config);
  for (INT32 n = 1; ok && n <= list_size(table.table); ++n) {
    HANDLE h = list_get_nth_object(table.table, n);
    const auto *s = static_cast<const gainsetting *>(handle_lock(h, "session"));
    if (s == nullptr) {
      ok = false;
      break;
    }
    out->gains.push_back(
        GainRow{s->pixel_rate, s->sensitivity, s->ms_per_pixel, s->comment ? s->comment : ""});
    handle_unlock(h, "session");
  }
  gain_dtor(&table);
  return ok;
}

bool read_programs(HANDLE config, Definitions *out) {
  if (!config_check_section(config, "PROGRAMS")) return false;
  HANDLE list = nullptr;
  bool ok = camprogs_extract(&list, config);
  // The reader puts each program in front of the last: the file's order is the list reversed.
  for (INT32 n = list_size(list); ok && n >= 1; --n) {
    HANDLE h = list_get_nth_object(list, n);
    const auto *p = static_cast<const camprog *>(handle_lock(h, "session"));
    if (p == nullptr) {
      ok = false;
      break;
    }
    out->programs.push_back(Program{p->name ? p->name : "", p->filename ? p->filename : ""});
    handle_unlock(h, "session");
  }
  if (list != nullptr) list_delete(list, camprog_delete);
  return ok;
}

bool read_volts(HANDLE config, Definitions *out) {
  if (!config_check_section(config, "VOLTAGES")) return false;
  volts v{};
  if (!volts_extract(&v, config)) {
    volts_dtor(&v);
    return false;
  }
  for (const voltage &e : v.entries) {
    out->volt_names.push_back(e.name != nullptr ? e.name : "");
    out->volts.push_back(voltage{nullptr, e.nominal, e.tolerance});
  }
  volts_dtor(&v);
  return true;
}

// A bare word the reader takes for a section's name: capitals and "_" only, and not a leading part
// of a boolean or a keyword, which the reader tries first.
bool is_section_name(const std::string &token) {
  if (token.empty()) return false;
  for (const char *word :
       {"TRUE", "FALSE", "DEFINE", "VERBOSE", "SILENT", "END_CONFIG", "END_SPEC"})
    if (std::string_view(word).starts_with(token)) return false;
  for (char c : token)
    if (!((c >= 'A' && c <= 'Z') || c == '_')) return false;
  return true;
}

// Walks a file as the reader does: line feeds count except inside quotes, a comment runs to the
// end of its line, and the byte 0xFF ends the text.
void scan(const std::string &text, DefinitionText::File *f) {
  const auto ends_word = [](unsigned char c) {
    return c == ' ' || c == ',' || c == '\r' || c == '\n' || c == '=' || c == '\t' || c == 0xFF;
  };
  long line = 1;  // the file's own
  f->starts = {1};
  size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == 0xFF) break;
    if (c == '\n') f->starts.push_back(++line);
    if (std::strchr(" \t\r\n\x1A,=", c) != nullptr && c != '\0') {
      ++i;
    } else if (c == '"') {
      const size_t close = std::min(text.find('"', i + 1), text.size());
      line += std::count(text.begin() + long(i), text.begin() + long(close), '\n');
      i = close + 1;
    } else if (c == '-' && i + 1 < text.size() && text[i + 1] == '-') {
      while (i < text.size() && text[i] != '\r' && text[i] != '\n') ++i;
    } else {
      size_t end = i;
      while (end < text.size() && !ends_word(static_cast<unsigned char>(text[end]))) ++end;
      const std::string word = text.substr(i, end - i);
      if (is_section_name(word)) f->sections.emplace_back(word, line);
      i = end;
    }
  }
  f->open_end = !text.empty() && text.back() != '\n';
}

}  // namespace

DefinitionText::DefinitionText(const std::vector<std::string> &files) {
  for (const std::string &path : files) {
    std::ifstream in(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    File f;
    f.path = path;
    scan(text, &f);
    files_.push_back(std::move(f));
  }
}

std::string DefinitionText::where(long line) const {
  for (size_t i = 0; i < files_.size() && line >= 1; ++i) {
    const File &f = files_[i];
    const long counted = long(f.starts.size()) - 1;  // the line feeds the reader counts
    const bool last = i + 1 == files_.size();
    if (line <= counted + 1) {
      const std::string here = f.path + ", line " + std::to_string(f.starts[size_t(line - 1)]);
      if (line <= counted || last) return here;
      // Nothing separates the files: a last line without a line feed runs on into the next.
      if (f.open_end) return here + ", which runs on into " + files_[i + 1].path + ", line 1";
    }
    line -= counted;
  }
  return {};
}

std::string DefinitionText::section(const std::string &name) const {
  for (const File &f : files_)
    for (const auto &[section, line] : f.sections)
      if (section == name) return f.path + ", line " + std::to_string(line);
  return {};
}

std::string ccd_definition_file(const std::string &ccd) {
  return std::filesystem::path(ccd).replace_extension(".def").string();
}

bool read_definitions(const std::string &hw, const std::string &ccd, Definitions *out) {
  Config c;
  c.handle =
      ccd.empty() ? config_new(hw.c_str(), nullptr) : config_new(hw.c_str(), ccd.c_str(), nullptr);
  if (c.handle == nullptr || !config_check_section(c.handle, "DEVICE")) return false;
  device dev{};
  const bool got = device_extract(&dev, c.handle);
  if (got && dev.name != nullptr) out->device = dev.name;
  device_dtor(&dev);
  if (!got) return false;
  INT32 index = 0;
  out->has_simulator = config_section_defined(c.handle, "SIMULATOR", &index);
  if (out->has_simulator &&
      (!config_check_section(c.handle, "SIMULATOR") || !simulator_extract(&out->sim, c.handle)))
    return false;
  if (!read_gains(c.handle, out)) return false;
  if (ccd.empty()) return true;
  return read_volts(c.handle, out) && read_programs(c.handle, out);
}

}  // namespace session
