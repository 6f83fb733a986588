// Definition texts written to files of a test's own, and the shipped files of the simulated camera.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "support/frame.h"
#include "tvx/config.h"
#include "tvx/list.h"
#include "tvx/sections.h"

namespace tvx_test {

inline std::string shipped(const std::string &name) {
  return std::string(TVX_SOURCE_DIR) + "/data/sim/" + name;
}

inline std::string read_text(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// What `print` writes to a stream.
template <class Print>
std::string printed(Print print) {
  char *text = nullptr;
  size_t length = 0;
  FILE *out = open_memstream(&text, &length);
  print(out);
  std::fclose(out);
  std::string result(text, length);
  std::free(text);
  return result;
}

class ConfigTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    char pattern[] = "/tmp/tvx-config-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    for (HANDLE c : made_) config_delete(c);
    std::string command = "rm -rf " + dir_;
    EXPECT_EQ(std::system(command.c_str()), 0);
    FrameTest::TearDown();
  }

  // Writes `text` to a file of the test's own and returns its path.
  std::string file(const std::string &name, const std::string &text) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  // Parses the texts as files read together; the config is deleted after the test.
  HANDLE parse(const std::string &first, const std::string &second = "") {
    std::string a = file("a.def", first);
    HANDLE c = second.empty() ? config_new(a.c_str(), nullptr)
                              : config_new(a.c_str(), file("b.def", second).c_str(), nullptr);
    if (c != nullptr) made_.push_back(c);
    return c;
  }

  HANDLE parse_shipped(const char *ccd_file) {
    HANDLE c = config_new(shipped("7100hw.def").c_str(), shipped(ccd_file).c_str(), nullptr);
    if (c != nullptr) made_.push_back(c);
    return c;
  }

  // The story the stack tells, brief, after which the stack is cleared.
  std::string story() {
    std::string text = print_all(ERR_MODE_BRIEF);
    if ((*stack())->category != 0) err_reset_all(stack());
    return text;
  }

  std::string dir_;
  std::vector<HANDLE> made_;
};

}  // namespace tvx_test
