// An in-memory wire for the packet layer: what the library writes is kept word by word, and what
// it reads comes from a script of replies. An empty script reads as an I/O time-out, as a link
// whose far end is silent does.
#pragma once

#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

#include "link/link_support.h"
#include "tvx/cs71.h"
#include "tvx/csp.h"

namespace tvx_test {

struct Wire {
  std::deque<INT16> incoming;
  std::vector<INT16> sent;
  bool refuse_writes = false;

  // A reply of the controller (address 1) to this end (address -1).
  void reply(INT16 control, std::initializer_list<INT16> params = {}, INT16 destination = -1) {
    incoming.push_back(static_cast<INT16>(3 + params.size()));
    incoming.insert(incoming.end(), {destination, 1, control});
    incoming.insert(incoming.end(), params);
  }
  void complete(std::initializer_list<INT16> params = {}) { reply(CS71_COMPLETE, params); }

  static Wire &of(HANDLE link) { return *static_cast<Wire *>(link); }
  static BOOL silent(const char *op) {
    err_stack s = nullptr;
    err_terminal(*err_where_is(&s), ERR_TIMEOUT, 0, op, "no input available.");
    return FALSE;
  }
  static BOOL read_size(HANDLE link, INT16 *value) { return read_words(link, value, 1); }
  static BOOL read_words(HANDLE link, INT16 *words, INT16 count) {
    Wire &w = of(link);
    for (int i = 0; i < count; ++i) {
      if (w.incoming.empty()) return silent("wire_read");
      words[i] = w.incoming.front();
      w.incoming.pop_front();
    }
    return TRUE;
  }
  static BOOL write_size(HANDLE link, INT16 value) { return write_words(link, &value, 1); }
  static BOOL write_words(HANDLE link, const INT16 *words, INT16 count) {
    Wire &w = of(link);
    if (w.refuse_writes) return silent("wire_write");
    w.sent.insert(w.sent.end(), words, words + count);
    return TRUE;
  }
};

// A packet object and a controller object over a fresh wire.
class WireTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    tvx_test_clock_virtual(1000);
    packets_ =
        csp_new(&wire_, -1, Wire::read_size, Wire::read_words, Wire::write_size, Wire::write_words);
    controller_ = cs71_new(1, packets_);
    ASSERT_NE(controller_, nullptr);
  }
  void TearDown() override {
    cs71_delete(controller_);
    csp_delete(packets_);
    FrameTest::TearDown();
  }
  // The probe every common request opens with.
  static std::vector<INT16> probe() { return {3, 1, -1, 1}; }
  static std::vector<INT16> packet(INT16 control, std::initializer_list<INT16> params = {}) {
    std::vector<INT16> p = {static_cast<INT16>(3 + params.size()), 1, -1, control};
    p.insert(p.end(), params);
    return p;
  }
  static std::vector<INT16> join(std::initializer_list<std::vector<INT16>> parts) {
    std::vector<INT16> all;
    for (const auto &p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
  }

  Wire wire_;
  HANDLE packets_ = nullptr;
  HANDLE controller_ = nullptr;
};

}  // namespace tvx_test
