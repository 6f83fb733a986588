// The server's configuration from the hardware definition file, and its start-up against the
// simulated controller.
#include <unistd.h>

#include <climits>

#include "server/readout_support.h"

namespace {

using namespace tvx_test;

class Server : public ReadoutTest {
 protected:
  HANDLE configured(const std::string &definition_file) {
    server_delete(server_);
    server_ = server_allocate();
    return server_ctor(server_, definition_file.c_str()) ? server_ : nullptr;
  }
};

TEST_F(Server, ConfigurationReadsTheHardwareFileBesideTheOneGivenAndFailsWithItsChain) {
  ASSERT_NE(configured(shipped("sim_small.def")), nullptr) << story();
  char name[264];
  EXPECT_TRUE(server_system_filename(server_, "install.btl", name));
  EXPECT_EQ(std::string(name), shipped("install.btl"));
  EXPECT_EQ(std::string(server_definition_file(server_)), shipped("7100hw.def"));
  INT32 bits = 0;
  EXPECT_TRUE(server_get_bits_per_pixel(server_, &bits));
  EXPECT_EQ(bits, 16) << "the shipped converter reads one channel";
  double ms = 0;
  EXPECT_TRUE(server_get_ms_per_pixel(server_, 2, &ms));
  EXPECT_DOUBLE_EQ(ms, 0.0067);
  EXPECT_FALSE(server_get_ms_per_pixel(server_, 9, &ms));
  EXPECT_NE(story().find("requested readout rate '9' not found in the table"), std::string::npos);

  // The print form: the device line, with its base address in hex.
  const std::string form = printed([&](FILE *out) { server_print(server_, out); });
  EXPECT_NE(form.find("device (name simulator, base_addr 150, unit 0)"), std::string::npos);

  // A bare name reads the current directory.
  char here[PATH_MAX];
  ASSERT_NE(getcwd(here, sizeof here), nullptr);
  ASSERT_EQ(chdir((std::string(TVX_SOURCE_DIR) + "/data/sim").c_str()), 0);
  HANDLE s = configured("anything.def");
  ASSERT_EQ(chdir(here), 0);
  ASSERT_NE(s, nullptr) << story();
  EXPECT_STREQ(server_definition_file(server_), "7100hw.def") << "no leading separator";

  // A broken hardware file fails configuration with its chain.
  std::string text = read_text(shipped("7100hw.def"));
  text.replace(text.find("\nADC\n"), 5, "\nADX\n");
  file("7100hw.def", text);
  EXPECT_EQ(configured(dir_ + "/my.def"), nullptr);
  const std::string path = print_last(ERR_MODE_PATH);
  EXPECT_EQ(path.rfind("server_ctor-> \nserver_configure-> \nheader", 0), 0u) << path;
  std::string said = story();
  EXPECT_NE(said.find("error in section 'ADX', section 'ADX' is not defined"), std::string::npos)
      << said;

  EXPECT_EQ(configured(dir_ + "/nowhere/my.def"), nullptr);
  EXPECT_NE(story().find("configuration file '" + dir_ + "/nowhere/7100hw.def'"),
            std::string::npos);
}

}  // namespace
