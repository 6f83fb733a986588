// A small JSON writer for --json: objects, arrays, strings and numbers, written as they come.
#pragma once

#include <cmath>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace tvxcam {

class Json {
 public:
  Json &open(const char *key = nullptr) { return begin(key, '{'); }
  Json &close() { return end('}'); }
  Json &open_array(const char *key = nullptr) { return begin(key, '['); }
  Json &close_array() { return end(']'); }

  Json &field(const char *key, const std::string &value) {
    separate(key);
    quote(value);
    return *this;
  }
  Json &field(const char *key, const char *value) { return field(key, std::string(value)); }
  Json &field(const char *key, double value) {
    separate(key);
    if (!std::isfinite(value)) {
      out_ += "null";
    } else {
      char text[40];
      std::snprintf(text, sizeof text, "%.10g", value);
      out_ += text;
    }
    return *this;
  }
  Json &field(const char *key, long value) {
    separate(key);
    out_ += std::to_string(value);
    return *this;
  }
  Json &field(const char *key, int value) { return field(key, long{value}); }
  // null when there is none.
  template <class T>
  Json &field(const char *key, const std::optional<T> &value) {
    if (value) return field(key, *value);
    separate(key);
    out_ += "null";
    return *this;
  }
  Json &field(const char *key, bool value) {
    separate(key);
    out_ += value ? "true" : "false";
    return *this;
  }
  const std::string &text() const { return out_; }

 private:
  Json &begin(const char *key, char bracket) {
    separate(key);
    out_ += bracket;
    first_.push_back(true);
    return *this;
  }
  Json &end(char bracket) {
    first_.pop_back();
    out_ += bracket;
    return *this;
  }
  void separate(const char *key) {
    if (!first_.empty()) {
      if (!first_.back()) out_ += ',';
      first_.back() = false;
    }
    if (key != nullptr) {
      quote(key);
      out_ += ':';
    }
  }
  void quote(const std::string &s) {
    out_ += '"';
    for (unsigned char c : s) {
      if (c == '"' || c == '\\') {
        out_ += '\\';
        out_ += char(c);
      } else if (c < 0x20) {
        char esc[8];
        std::snprintf(esc, sizeof esc, "\\u%04x", c);
        out_ += esc;
      } else {
        out_ += char(c);
      }
    }
    out_ += '"';
  }
  std::string out_;
  std::vector<bool> first_;
};

}  // namespace tvxcam
