// The shipped definition files of the simulated camera, read as the camera reads them, and broken
// copies of them, each failing with its own text.
#include <regex>

#include "sim/settings.h"

#include "config/config_support.h"

namespace {

using namespace tvx_test;

class Records : public ConfigTest {
 protected:
  // The hardware and small chip files with `from` replaced by `to` in the one that holds it.
  HANDLE broken(const std::string &from, const std::string &to) {
    std::string hw = read_text(shipped("7100hw.def")), chip = read_text(shipped("sim_small.def"));
    std::string &text = hw.find(from) != std::string::npos ? hw : chip;
    size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return parse(hw, chip);
  }
};

constexpr const char *kSections[] = {"DEVICE",   "TRANSPUTER", "ADC",
                                     "VOLTAGES", "GAIN_TABLE", "GAIN_CONSTANTS",
                                     "PROGRAMS", "SIMULATOR",  "CCD"};

TEST_F(Records, EveryShippedPairParsesChecksAndFillsEveryRecord) {
  for (const char *chip : {"sim_small.def", "sim_large.def"}) {
    SCOPED_TRACE(chip);
    HANDLE c = parse_shipped(chip);
    ASSERT_NE(c, nullptr) << story();
    for (const char *section : kSections) EXPECT_TRUE(config_check_section(c, section)) << story();

    device dev{};
    ASSERT_TRUE(device_extract(&dev, c)) << story();
    trans tr{};
    ASSERT_TRUE(trans_extract(&tr, c)) << story();
    adc converter{};
    ASSERT_TRUE(adc_extract(&converter, c)) << story();
    EXPECT_EQ(converter.shutter[3], 20);
    volts v{};
    ASSERT_TRUE(volts_extract(&v, c)) << story();
    for (INT32 k = 0; k < VOLTS_COUNT; ++k) EXPECT_STREQ(v.entries[k].name, volts_id_name(k));
    HANDLE programs = nullptr;
    ASSERT_TRUE(camprogs_extract(&programs, c)) << story();
    EXPECT_EQ(list_size(programs), 3);
    HANDLE flush = nullptr;
    EXPECT_TRUE(list_find_object(programs, const_cast<char *>("flush"), camprog_findfn1, &flush));
    EXPECT_FALSE(list_find(programs, const_cast<char *>("expose"), camprog_findfn1));
    ccd chip_record{};
    ASSERT_TRUE(ccd_extract(&chip_record, c)) << story();
    EXPECT_GE(chip_record.xsize - chip_record.active_area[2], 13) << "reference columns";
    EXPECT_EQ(chip_record.active_area[3], chip_record.ysize);
    EXPECT_GT(chip_record.ptiming_count, 0);

    std::string text = printed([&](FILE *out) {
      device_print(&dev, out);
      trans_print(&tr, out);
      adc_print(&converter, out);
      volts_print(&v, out);
      ccd_print(&chip_record, out);
      camprog_print(flush, out);
      EXPECT_TRUE(config_print(c, out));
    });
    EXPECT_NE(text.find("device (name simulator, base_addr 150, unit 0)\n"), std::string::npos);
    EXPECT_NE(text.find("trans(io_timeout 500, linkspeed 20, boot_from_rom 'FALSE', atlinit_file "
                        "atlinit.btm, boot_file install.btl, procinit_file procinit, camera_file "
                        "camera.r2h, concurrent 'FALSE')\n"),
              std::string::npos);
    EXPECT_NE(text.find("adc(auxiliary 0, mode 1, dummy load 'FALSE', h1h2l1l2 1.0, c1 0, c2 0, "
                        "c3 0 )\n"),
              std::string::npos);
    EXPECT_NE(text.find("voltage(0, vod, 28.00, 0.50)"), std::string::npos);
    EXPECT_EQ(text.find("voltage(21,"), std::string::npos) << "half the table is printed";
    EXPECT_NE(text.find("camprog(flush, flush.cpg)"), std::string::npos);
    EXPECT_NE(text.find("state(0,"), std::string::npos);
    EXPECT_NE(text.find("\n\nExpected: section DEVICE:\n{[name][a][sa]}"), std::string::npos);
    EXPECT_NE(text.find("\n\nActual: section CCD\n{[type]"), std::string::npos);

    device_dtor(&dev);
    trans_dtor(&tr);
    volts_dtor(&v);
    ccd_dtor(&chip_record);
    list_delete(programs, camprog_delete);
  }
}

TEST_F(Records, BrokenHardwareFilesFailWithTheirText) {
  HANDLE c = broken("    linkspeed = 20\n", "");
  ASSERT_NE(c, nullptr);
  EXPECT_FALSE(config_check_section(c, "TRANSPUTER"));
  EXPECT_EQ(story(),
            "while checking section 'TRANSPUTER', identifier 'linkspeed' not found: No "
            "reasonable data was supplied. Sorry, there are no suggested causes.\n");
  trans tr{};
  EXPECT_FALSE(trans_extract(&tr, c));
  EXPECT_EQ(print_last(ERR_MODE_TRACEBACK),
            "trans_extract-> unable to extract 'linkspeed' from section 'TRANSPUTER'.\nNo "
            "reasonable data was supplied.\nSorry, there are no suggested causes.\n");
  err_reset_all(stack());
  trans_dtor(&tr);

  const char *const cases[][4] = {
      {"io_timeout = 500", "io_timeout = 7000", "TRANSPUTER",
       "identifier 'io_timeout' (7000) not in the range '1 6499'"},
      {"base_address = 0x150", "base_address = 0x151", "DEVICE",
       "identifier 'base_address' (0x151) not in the selection"},
      {"boot_from_rom = FALSE", "boot_from_rom = 3", "TRANSPUTER",
       "invalid data type 'b' for identifier 'boot_from_rom' in def file"}};
  for (const auto &[from, to, section, said] : cases) {
    EXPECT_FALSE(config_check_section(broken(from, to), section)) << to;
    EXPECT_NE(story().find(said), std::string::npos) << to;
  }
}

TEST_F(Records, VoltagesNeedAllFortyOneRows) {
  HANDLE c = broken("    stage4     = 5.00, 1.00\n", "");
  volts v{};
  EXPECT_FALSE(volts_extract(&v, c));
  EXPECT_EQ(print_last(ERR_MODE_PATH), "volts_extract\n");
  EXPECT_NE(story().find("unable to extract 'stage4' from section 'VOLTAGES'"), std::string::npos);
  volts_dtor(&v);

  // A file-ordered section may hold more: the 42nd row is not read.
  c = parse("DEFINE \"VOLTAGES\" Horizontal Atleast\n" + [] {
    std::string rows;
    for (int k = 0; k < 42; ++k) rows += "v" + std::to_string(k) + " = 1.0, 0.5\n";
    return "VOLTAGES\n" + rows;
  }());
  ASSERT_NE(c, nullptr) << story();
  EXPECT_TRUE(volts_extract(&v, c)) << story();
  EXPECT_STREQ(v.entries[40].name, "v40");
  volts_dtor(&v);
}

TEST_F(Records, AdcAndCcdReadersForgiveWhatOnlyTheirLastRowDecides) {
  HANDLE c = broken("    const1 = 0\n", "");
  adc converter{};
  converter.const1 = 77;
  EXPECT_TRUE(adc_extract(&converter, c)) << story();
  EXPECT_EQ(converter.const1, 77) << "left as it was";

  c = broken("    shutter = 20, 20, 20, 20", "    shutter = 20, 20, 20");
  EXPECT_FALSE(adc_extract(&converter, c));
  EXPECT_EQ(story(),
            "unable to extract 'shutter' from section 'ADC': No reasonable data was "
            "supplied. Sorry, there are no suggested causes.\n");

  c = broken("parallel_timing = 10, 20, 10, 20, 10, 20, 40, 10",
             "parallel_timing = 1, 2, 3, 4, 5, 6, 7");
  ccd record{};
  ASSERT_TRUE(ccd_extract(&record, c)) << story();
  EXPECT_EQ(record.ptiming_count, 3) << "the odd value makes no pair";
  EXPECT_EQ(record.ptiming1[2], 5);
  EXPECT_EQ(record.ptiming2[2], 6);
  ccd_dtor(&record);

  // Whichever row cannot be read, the reader names the last identifier of its table.
  const std::pair<const char *, const char *> rows[] = {
      {"active_area = 0, 0, 64, 64", "active_area = 0, 0, 64"},
      {"    parallel_transfers = 64\n", ""}};
  for (const auto &[from, to] : rows) {
    c = broken(from, to);
    EXPECT_FALSE(ccd_extract(&record, c)) << from;
    EXPECT_EQ(print_last(ERR_MODE_PATH), "ccd_extract-> \nccd_extract\n");
    EXPECT_NE(story().find("unable to extract 'parallel_transfers' from section 'CCD'"),
              std::string::npos)
        << from;
    ccd_dtor(&record);
  }
}

TEST_F(Records, SimulatorSectionNamesTheFaultTheSimulatedCameraShows) {
  HANDLE c = parse_shipped("sim_small.def");
  simulator sim{};
  ASSERT_TRUE(simulator_extract(&sim, c)) << story();
  EXPECT_STREQ(sim.scene, "starfield");
  EXPECT_EQ(sim.seed, 7100);
  EXPECT_DOUBLE_EQ(sim.read_noise, 6.5);
  EXPECT_STREQ(sim.fault, "none");
  EXPECT_TRUE(simulator_apply(&sim));
  EXPECT_FALSE(tvx::sim::settings().power_off);

  c = broken("    fault = none\n    drop_after = 0", "    fault = drop_words\n    drop_after = 40");
  ASSERT_TRUE(simulator_extract(&sim, c)) << story();
  EXPECT_TRUE(simulator_apply(&sim));
  EXPECT_EQ(tvx::sim::settings().drop_after, 40);
  c = broken("    fault = none", "    fault = linkspeed_mismatch");
  ASSERT_TRUE(simulator_extract(&sim, c)) << story();
  EXPECT_TRUE(simulator_apply(&sim));
  EXPECT_NE(tvx::sim::settings().controller_speed, 5) << "the card boots at 5 Mbit/s";
  EXPECT_EQ(tvx::sim::settings().drop_after, 0) << "each fault replaces the last";
  tvx_test_simulator_reset();

  c = broken("    fault = none", "    fault = melted");
  EXPECT_FALSE(simulator_extract(&sim, c));
  EXPECT_NE(story().find("identifier 'fault' (melted) not in the selection"), std::string::npos);
  std::snprintf(sim.fault, sizeof sim.fault, "melted");
  EXPECT_FALSE(simulator_apply(&sim));
  EXPECT_NE(story().find("unknown simulator fault 'melted'"), std::string::npos);
}

TEST(VoltageTables, NamesAndChannels) {
  EXPECT_STREQ(volts_id_name(0), "vod");
  EXPECT_STREQ(volts_id_name(40), "stage4");
  EXPECT_STREQ(volts_id_name(43), "coarseoffset");
  EXPECT_STREQ(volts_id_name(44), "Unknown voltage name.");
  EXPECT_STREQ(volts_id_name(48), "fineblack2");
  EXPECT_STREQ(volts_id_name(49), "Unknown voltage name.");
  EXPECT_STREQ(volts_id_name(-1), "Unknown voltage name.");
  // Channels shared by two ids, and the ids with no channel.
  EXPECT_EQ(voltageid_map(6), 2);
  EXPECT_EQ(voltageid_map(7), 2);
  EXPECT_EQ(voltageid_map(13), voltageid_map(15));
  EXPECT_EQ(voltageid_map(45), 20);
  EXPECT_EQ(voltageid_map(46), 20);
  EXPECT_EQ(voltageid_map(29), -1);
  EXPECT_EQ(voltageid_type(20), 1024);
  EXPECT_EQ(voltageid_type(34), 512);
  EXPECT_EQ(voltageid_access(47), 1);
  EXPECT_EQ(voltageid_access(8), 2);
  EXPECT_EQ(voltageid_map(49), -1);
  EXPECT_EQ(voltageid_type(49), 0);
  EXPECT_EQ(voltageid_access(49), 0);
  for (INT32 id = 0; id < 49; ++id) {
    if (voltageid_map(id) == -1) {
      EXPECT_EQ(voltageid_type(id), 0) << "no channel, no type: " << id;
    }
  }
}

}  // namespace
