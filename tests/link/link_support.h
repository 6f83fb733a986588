// Support for the adapter's tests: a fixture that keeps every test off the machine's own ports
// and starts each with fresh simulated cards and a virtual clock, and a scripted card whose
// registers a test sets and whose writes it reads back.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/frame.h"
#include "tvx/atlink.h"
#include "tvx/ports.h"

// The text holds the piece; a failure shows both.
#define EXPECT_HAS(text, piece) EXPECT_PRED_FORMAT2(::testing::IsSubstring, piece, text)

namespace tvx_test {

// From the source tree the build names: __FILE__ is relative when the compiler cache rewrites
// paths, and the tests run elsewhere.
inline std::string data_file(const char *name) {
  return std::string(TVX_SOURCE_DIR) + "/data/sim/" + name;
}

inline std::vector<uint8_t> slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class LinkTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    tvx_test_ports_floating(TRUE);
    tvx_test_simulator_reset();
    tvx_test_clock_virtual(1000);
  }
  void TearDown() override {
    tvx_test_simulator_reset();
    for (const std::string &path : made_) std::remove(path.c_str());
    FrameTest::TearDown();
  }
  // A file of these bytes, removed when the test ends.
  std::string craft(const char *name, const std::vector<uint8_t> &bytes) {
    std::string path = ::testing::TempDir() + "tvx_" + std::to_string(getpid()) + "_" + name;
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
    made_.push_back(path);
    return path;
  }
  std::vector<std::string> made_;
};

// Registers a test sets by hand, at a base address, recording every write.
struct ScriptedCard {
  WORD base;
  WORD status = 0x00DB;  // nothing in error, both FIFOs empty
  WORD control = 0;
  std::deque<WORD> incoming;
  std::vector<WORD> sent;
  std::vector<WORD> control_writes;

  explicit ScriptedCard(WORD at) : base(at) { port_attach(base, 6, read, write, this); }
  ~ScriptedCard() { port_detach(base); }
  ScriptedCard(const ScriptedCard &) = delete;
  ScriptedCard &operator=(const ScriptedCard &) = delete;

  static WORD read(void *context, WORD port) {
    auto *card = static_cast<ScriptedCard *>(context);
    switch (port - card->base) {
      case 0: {
        if (card->incoming.empty()) return 0;
        WORD w = card->incoming.front();
        card->incoming.pop_front();
        return w;
      }
      case 2:
        return static_cast<WORD>(card->status | (card->incoming.empty() ? 0 : 0x04));
      case 4:
        return card->control;
      default:
        return 0xFFFF;
    }
  }
  static void write(void *context, WORD port, WORD value) {
    auto *card = static_cast<ScriptedCard *>(context);
    if (port - card->base == 0) card->sent.push_back(value);
    if (port - card->base == 4) {
      card->control = value;
      card->control_writes.push_back(value);
    }
  }
};

// What atlink_print writes for an adapter.
inline std::string printed(HANDLE link) {
  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  atlink_print(link, stream);
  std::fclose(stream);
  std::string result = text;
  std::free(text);
  return result;
}

// The newest error's routine path and causes, as the application would see them.
inline std::string last_text() {
  return print_last(ERR_MODE_TRACEBACK);
}

inline std::vector<INT32> last_causes() {
  std::vector<INT32> causes;
  for (err_cause *c = (*stack())->causes; c != nullptr; c = c->next) causes.push_back(c->cause);
  return causes;
}

}  // namespace tvx_test
