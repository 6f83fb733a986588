// tvxcam as a user runs it, on the simulated camera: each subcommand's exit status, the files it
// leaves (FITS checked by fitsverify and read back through cfitsio, previews decoded by libpng),
// the figures of its summary, and failures that tell the library's story and exit non-zero.
// Most runs use the simulator's virtual clock; a few take real time where time is the point.
#include <pty.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <numeric>

#include "tvx/tvx.h"
#include "tvxcam/tvxcam_support.h"

namespace {

using namespace tvxcam_test;

// ---- snap ---------------------------------------------------------------------------------

TEST_F(Tvxcam, SnapWithNoOptionsLeavesAFitsFileAndAPreview) {
  const auto utc = [] {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const double before = utc();
  const auto start = std::chrono::steady_clock::now();
  const Outcome r = cam({"snap"});
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "") << "no progress when the output is not a terminal";
  EXPECT_GE(took, 1.0) << "the default exposure is a real second";
  EXPECT_NE(r.out.find("light frame  1.000 s"), std::string::npos) << r.out;
  verified("snap.fits");

  const std::vector<Hdu> fits = read_fits(dir_ / "snap.fits");
  ASSERT_EQ(fits.size(), 1u);
  const Hdu &h = fits[0];
  EXPECT_EQ(h.bitpix, 16);
  EXPECT_EQ(h.equivalent, USHORT_IMG);
  EXPECT_EQ(h.number("BZERO"), 32768);
  EXPECT_EQ(std::make_pair(h.width, h.height), std::make_pair(80L, 64L));
  EXPECT_EQ(h.number("EXPTIME"), 1.0);
  EXPECT_EQ(h.text("IMAGETYP"), "Light Frame");
  EXPECT_EQ(h.number("XBINNING"), 1);
  EXPECT_EQ(h.number("YBINNING"), 1);
  EXPECT_EQ(h.number("XORGSUBF"), 0);
  EXPECT_EQ(h.number("YORGSUBF"), 0);
  EXPECT_EQ(h.text("DETECTOR"), "sim64");
  EXPECT_EQ(h.text("READOUTM"), "40 kHz full well");
  EXPECT_NE(h.text("INSTRUME").find("7100"), std::string::npos);
  EXPECT_NEAR(h.number("CCD-TEMP"), 20.0, 1.0) << "the chip starts at room temperature";
  EXPECT_NEAR(h.number("GAIN"), figure(r.out, "full well, "), 0.001);
  const double start_utc = utc_seconds(h.text("DATE-OBS"));
  EXPECT_GE(start_utc, before - 0.01) << h.text("DATE-OBS");
  EXPECT_LE(start_utc, utc() - 1.0) << "the start of the exposure, a second before the end";
  EXPECT_NEAR(utc_seconds(h.text("DATE-END")) - start_utc, 1.0, 0.05) << h.text("DATE-END");
  EXPECT_NEAR(h.number("CCD-TEND"), 20.0, 1.0);
  EXPECT_FALSE(h.has("SET-TEMP")) << "the cooler is off";
  EXPECT_EQ(h.text("ROWORDER"), "BOTTOM-UP");

  // The summary's figures are the file's.
  const auto [lo, hi] = std::minmax_element(h.pixels.begin(), h.pixels.end());
  const double mean =
      std::accumulate(h.pixels.begin(), h.pixels.end(), 0.0) / double(h.pixels.size());
  EXPECT_EQ(figure(r.out, " min "), double(*lo)) << r.out;
  EXPECT_EQ(figure(r.out, " max "), double(*hi));
  EXPECT_NEAR(figure(r.out, " mean "), mean, 0.05);

  // The preview is the same picture, its levels in the same order, black to white, and drawn
  // as a FITS viewer draws the file: its top row is the file's last.
  const Grey png = read_png(dir_ / "snap.png");
  ASSERT_EQ(std::make_pair(png.width, png.height), std::make_pair(80u, 64u));
  const auto grey = [&](size_t fits_index) {
    return png.at(unsigned(fits_index % 80), unsigned(63 - fits_index / 80));
  };
  std::vector<size_t> order(h.pixels.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(),
            [&](size_t a, size_t b) { return h.pixels[a] < h.pixels[b]; });
  for (size_t i = 1; i < order.size(); ++i)
    ASSERT_LE(grey(order[i - 1]), grey(order[i])) << "at rank " << i;
  EXPECT_EQ(grey(order.front()), 0);
  EXPECT_EQ(grey(order.back()), 255);
}

TEST_F(Tvxcam, RegionsReadBackPixelExactInEveryFormat) {
  const Outcome r = sim({"--scene", "coordinates", "snap", "-e", "0", "-r", "8,4,24,16", "-r",
                         "40,8,8,6", "-o", "r.fits", "-o", "r.png", "-o", "r.img"});
  ASSERT_EQ(r.status, 0) << r.err;
  verified("r.fits");
  const std::vector<Hdu> fits = read_fits(dir_ / "r.fits");
  ASSERT_EQ(fits.size(), 3u) << "an empty primary HDU and one extension a region";
  EXPECT_EQ(fits[0].naxis, 0);
  EXPECT_EQ(fits[0].number("NREGIONS"), 2);
  EXPECT_EQ(fits[0].text("IMAGETYP"), "Bias Frame") << "no exposure at all";
  const struct { long x, y, w, h; } regions[] = {{8, 4, 24, 16}, {40, 8, 8, 6}};
  for (int n = 0; n < 2; ++n) {
    SCOPED_TRACE("region " + std::to_string(n + 1));
    const Hdu &h = fits[size_t(n) + 1];
    const auto &g = regions[n];
    EXPECT_EQ(h.text("EXTNAME"), "region " + std::to_string(n + 1));
    EXPECT_EQ(std::make_pair(h.number("XORGSUBF"), h.number("YORGSUBF")),
              std::make_pair(double(g.x), double(g.y)));
    ASSERT_EQ(std::make_pair(h.width, h.height), std::make_pair(g.w, g.h));
    int wrong = 0;
    for (long y = 0; y < g.h; ++y)
      for (long x = 0; x < g.w; ++x) wrong += h.at(x, y) != coordinate(g.x + x, g.y + y);
    EXPECT_EQ(wrong, 0);

    // The native file holds the same pixels, as the library reads them.
    const std::string native = "r_r" + std::to_string(n + 1) + ".img";
    HANDLE image = image_new(1, 1, 16);
    ASSERT_TRUE(image_read(image, (dir_ / native).c_str()));
    INT32 w = 0, hh = 0, d = 0;
    image_size(image, &w, &hh, &d);
    EXPECT_EQ(std::make_pair(w, hh), std::make_pair(INT32(g.w), INT32(g.h)));
    for (long y = 0; y < g.h; ++y) {
      const auto *row = static_cast<const WORD *>(image_lockraster(image, INT32(y)));
      for (long x = 0; x < g.w; ++x) wrong += row[x] != h.at(x, y);
      image_unlockraster(image, INT32(y));
    }
    EXPECT_EQ(wrong, 0);
    image_delete(image);
    const Grey png = read_png(dir_ / ("r_r" + std::to_string(n + 1) + ".png"));
    ASSERT_EQ(std::make_pair(png.width, png.height), std::make_pair(unsigned(g.w), unsigned(g.h)));
    // The scene brightens with the row: the first row read out is the darkest, at the bottom.
    EXPECT_EQ(png.at(0, unsigned(g.h - 1)), 0);
    EXPECT_EQ(png.at(unsigned(g.w - 1), 0), 255);
  }
}

TEST_F(Tvxcam, BinningOperationModesAndTwoChannelPixels) {
  {
    SCOPED_TRACE("binned 2x2, raw");
    const Outcome r =
        sim({"--scene", "coordinates", "snap", "-e", "0", "-b", "2x2", "-o", "b.fits"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Hdu h = read_fits(dir_ / "b.fits").at(0);
    EXPECT_EQ(std::make_pair(h.number("XBINNING"), h.number("YBINNING")), std::make_pair(2.0, 2.0));
    EXPECT_FALSE(h.has("IMGZERO")) << "raw: nothing measured";
    ASSERT_EQ(std::make_pair(h.width, h.height), std::make_pair(40L, 32L));
    int wrong = 0;
    for (long y = 0; y < 32; ++y)
      for (long x = 0; x < 40; ++x) {
        long long sum = 0;
        for (int j = 0; j < 2; ++j)
          for (int i = 0; i < 2; ++i) sum += coordinate(2 * x + i, 2 * y + j);
        wrong += h.at(x, y) != (sum & 0xFFFF);
      }
    EXPECT_EQ(wrong, 0);
  }
  // Image zero: the mean of the scene over the reference columns 67 .. 79 and rows 2 .. 61.
  const long long zero = 73 + 256 * 63 / 2;
  {
    SCOPED_TRACE("processed: image zero taken off, signed");
    const Outcome r =
        sim({"--scene", "coordinates", "snap", "-e", "0", "-m", "processed", "-o", "p.fits"});
    ASSERT_EQ(r.status, 0) << r.err;
    verified("p.fits");
    const Hdu h = read_fits(dir_ / "p.fits").at(0);
    EXPECT_EQ(h.equivalent, SHORT_IMG);
    EXPECT_FALSE(h.has("BZERO")) << "signed pixels are stored as they are";
    ASSERT_EQ(std::make_pair(h.width, h.height), std::make_pair(64L, 64L)) << "the active area";
    EXPECT_EQ(h.number("IMGZERO"), double(zero));
    EXPECT_EQ(h.at(3, 0), 3 - zero);
    EXPECT_EQ(h.at(40, 50), coordinate(40, 50) - zero);
  }
  {
    SCOPED_TRACE("mode 3: a pedestal of 256 kept");
    const Outcome r = sim({"--scene", "coordinates", "snap", "-e", "0", "-m", "3", "-o", "k.fits"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Hdu h = read_fits(dir_ / "k.fits").at(0);
    EXPECT_EQ(h.equivalent, USHORT_IMG);
    EXPECT_EQ(h.at(40, 50), coordinate(40, 50) - (zero - 256));
  }
  {
    // Two channels: the converter's first channel is the scene, its second the complement. The
    // hardware file has another name, which the server cannot take as it stands.
    SCOPED_TRACE("two channels");
    const fs::path hw = copy_of_shipped("two");
    replace_in(hw / "7100hw.def", "    mode = 1\n", "    mode = 17\n");
    fs::rename(hw / "7100hw.def", hw / "two_channel.def");
    const Outcome r =
        sim({"--hw", "two/two_channel.def", "--ccd", "two/sim_small.def", "--scene", "coordinates",
             "snap", "-e", "0", "-m", "iz", "-o", "w.fits", "-o", "w.img"});
    ASSERT_EQ(r.status, 0) << r.err;
    verified("w.fits");
    // A cube of one 16-bit plane a channel, each named, with the image zero measured.
    const Hdu h = read_fits(dir_ / "w.fits").at(0);
    EXPECT_EQ(h.naxis, 3);
    EXPECT_EQ(h.equivalent, USHORT_IMG);
    ASSERT_EQ(std::make_tuple(h.width, h.height, h.planes), std::make_tuple(80L, 64L, 2L));
    EXPECT_EQ(h.number("CHANNELS"), 2);
    EXPECT_EQ(h.text("PLANE1"), "channel 1");
    EXPECT_EQ(h.text("PLANE2"), "channel 2");
    EXPECT_EQ(h.number("IMGZERO"), double(zero));
    int wrong = 0;
    for (long y = 0; y < 64; ++y)
      for (long x = 0; x < 80; ++x)
        wrong += h.at(x, y, 0) != coordinate(x, y) || h.at(x, y, 1) != (~coordinate(x, y) & 0xFFFF);
    EXPECT_EQ(wrong, 0);
    // Read back, the cube is the camera's packed pixels again.
    ASSERT_EQ(cam({"convert", "w.fits", "back.img"}).status, 0);
    EXPECT_EQ(slurp(dir_ / "back.img"), slurp(dir_ / "w.img"));
  }
}

TEST_F(Tvxcam, DarkFramesKeepTheShutterClosed) {
  const Outcome light = sim({"--scene", "flat", "snap", "-e", "5000", "-o", "light.fits"});
  const Outcome dark = sim({"--scene", "flat", "snap", "-e", "5000", "--dark", "-o", "dark.fits"});
  ASSERT_EQ(light.status, 0) << light.err;
  ASSERT_EQ(dark.status, 0) << dark.err;
  const Hdu l = read_fits(dir_ / "light.fits").at(0), d = read_fits(dir_ / "dark.fits").at(0);
  EXPECT_EQ(l.text("IMAGETYP"), "Light Frame");
  EXPECT_EQ(d.text("IMAGETYP"), "Dark Frame");
  EXPECT_EQ(d.number("EXPTIME"), 5.0);
  const double light_mean = figure(light.out, " mean "), dark_mean = figure(dark.out, " mean ");
  EXPECT_GT(light_mean - dark_mean, 100) << "light " << light_mean << ", dark " << dark_mean;
  EXPECT_NEAR(dark_mean, 1000, 10) << "the black level and a little dark current";
}

// ---- series ---------------------------------------------------------------------------------

TEST_F(Tvxcam, SeriesNumbersItsFramesAndKeepsTheDelay) {
  const Outcome r = cam({"series", "-n", "3", "-e", "100", "-d", "400", "-f", "2", "-r",
                         "0,0,16,16", "-r", "20,20,8,8", "-o", "s.fits", "-o", "s.png"});
  ASSERT_EQ(r.status, 0) << r.err;
  double previous = 0;
  for (int frame = 1; frame <= 3; ++frame) {
    const std::string n = "s_00" + std::to_string(frame);
    SCOPED_TRACE(n);
    for (const char *region : {"_r1.png", "_r2.png"}) EXPECT_TRUE(fs::exists(dir_ / (n + region)));
    const std::vector<Hdu> fits = read_fits(dir_ / (n + ".fits"));
    ASSERT_EQ(fits.size(), 3u);
    const double start = utc_seconds(fits[1].text("DATE-OBS"));
    if (frame > 1) {
      EXPECT_GE(start - previous, 0.5) << "exposure and delay between starts";
    }
    previous = start;
  }
  EXPECT_FALSE(fs::exists(dir_ / "s_004.fits"));
  EXPECT_NE(r.out.find("3 x 0.100 s light, 400 ms apart, 2 flushes before each"), std::string::npos)
      << r.out;
}

// ---- status and cool ------------------------------------------------------------------------

TEST_F(Tvxcam, StatusComparesEveryVoltageWithTheDefinitionFile) {
  const Outcome r = sim({"status"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("sim64, mode normal"), std::string::npos) << r.out;
  EXPECT_TRUE(
      std::regex_search(r.out, std::regex(R"(ccdtmp1 +29\d\.\d+ K +173\.150 K +10\.000 K +OUT)")))
      << "a warm chip is out of its tolerance";
  EXPECT_TRUE(std::regex_search(r.out, std::regex(R"(vod +2\d\.\d+ V +28\.000 V +0\.500 V +in)")));
  EXPECT_NE(r.out.find("35 of 36 readable voltages in tolerance"), std::string::npos);
  // Peak signal: electrons per level times the 16-bit converter's range.
  const std::smatch m = [&] {
    std::smatch s;
    std::regex_search(
        r.out, s, std::regex(R"(1 +1 +0\.0250 +([\d.]+) +(\d+) +40 kHz full well  \(in use\))"));
    return s;
  }();
  ASSERT_EQ(m.size(), 3u) << r.out;
  EXPECT_NEAR(std::stod(m[2]), std::stod(m[1]) * 65535, 65535 * 0.0005 + 1);
  EXPECT_NE(r.out.find("readout (readout.cpg) flush (flush.cpg) shutter (shutter.cpg)"),
            std::string::npos);
  EXPECT_TRUE(std::regex_search(r.out, std::regex(R"(library +tvx \d+\.\d+\.\d+\.\d+)")));

  // Tolerances come from the hardware file: narrowed there, a voltage falls out of it.
  const fs::path hw = copy_of_shipped("narrow");
  replace_in(hw / "7100hw.def", "vtherm     = 2.50, 1.00", "vtherm     = 2.50, 0.01");
  const Outcome json = sim({"--ccd", "narrow/sim_small.def", "--json", "status"});
  ASSERT_EQ(json.status, 0) << json.err;
  const std::string &j = json.out;
  EXPECT_EQ(j.front(), '{');
  EXPECT_EQ(j.substr(j.size() - 2), "}\n");
  size_t voltages = 0, out = 0;
  for (size_t at = 0; (at = j.find("\"in_tolerance\":", at)) != std::string::npos; ++at) {
    ++voltages;
    out += j.compare(at + 15, 5, "false") == 0;
  }
  EXPECT_EQ(voltages, 36u);
  EXPECT_EQ(out, 2u) << j;
  EXPECT_NE(j.find(R"("name":"vtherm","unit":"V",)"), std::string::npos);
  EXPECT_TRUE(std::regex_search(j, std::regex(R"("name":"vtherm"[^}]*"in_tolerance":false)")));
}

TEST_F(Tvxcam, TheCoolerGoesToItsOwnSetPointAndAPictureCanBeTakenThere) {
  const Outcome set = sim({"cool"});
  ASSERT_EQ(set.status, 0) << set.err;
  EXPECT_NE(set.out.find("cools the CCD to its own set point, -100.0 C"), std::string::npos)
      << set.out;
  // The cooler command carries no temperature: another target is refused, not promised.
  const Outcome other = sim({"cool", "-t", "-20", "--wait"});
  EXPECT_EQ(other.status, 1);
  EXPECT_NE(other.err.find("-t -20.0 cannot be honoured"), std::string::npos) << other.err;
  EXPECT_EQ(other.out, "");
  EXPECT_EQ(sim({"cool", "-t", "-100"}).status, 0) << "the set point itself is fine";

  const Outcome wait = sim({"cool", "--wait", "--tolerance", "0.2"});
  ASSERT_EQ(wait.status, 0) << wait.err;
  EXPECT_NEAR(figure(wait.out, "holds at the set point: "), -100, 0.2) << wait.out;
  // The temperature on the way down, every ten seconds, only ever falling.
  std::vector<double> seen;
  std::istringstream lines(wait.out);
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("  CCD ", 0) == 0) seen.push_back(figure(line, "CCD "));
  ASSERT_GE(seen.size(), 10u) << wait.out;
  EXPECT_NEAR(seen.front(), 20, 1);
  EXPECT_TRUE(std::is_sorted(seen.rbegin(), seen.rend()));

  const Outcome late = sim({"cool", "--wait", "--timeout", "30"});
  EXPECT_EQ(late.status, 1);
  EXPECT_NE(late.err.find("did not reach the cooler's set point, -100.0 C, within 30 s"),
            std::string::npos)
      << late.err;

  // Cooled and exposed in one run: the header has the cooled chip and the set point.
  const Outcome snap = sim({"snap", "--cool", "-e", "500", "-o", "cold.fits"});
  ASSERT_EQ(snap.status, 0) << snap.err;
  EXPECT_NE(snap.out.find("cooled       CCD -99."), std::string::npos) << snap.out;
  const Hdu h = read_fits(dir_ / "cold.fits").at(0);
  EXPECT_NEAR(h.number("CCD-TEMP"), -100, 0.5);
  EXPECT_NEAR(h.number("CCD-TEND"), -100, 0.5);
  EXPECT_EQ(h.number("SET-TEMP"), -100.0);
}

// ---- info and convert -----------------------------------------------------------------------

TEST_F(Tvxcam, InfoAndConvertTellFormatAndByteOrder) {
  ASSERT_EQ(sim({"--scene", "coordinates", "snap", "-e", "0", "-o", "c.img"}).status, 0);
  // The same file with every 16-bit word reversed, header and pixels.
  std::string bytes = slurp(dir_ / "c.img");
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) std::swap(bytes[i], bytes[i + 1]);
  std::ofstream(dir_ / "swapped.img", std::ios::binary) << bytes;

  const Outcome info = cam({"info", "c.img"}), swapped = cam({"info", "swapped.img"});
  ASSERT_EQ(info.status, 0) << info.err;
  ASSERT_EQ(swapped.status, 0) << swapped.err;
  EXPECT_NE(info.out.find("format       native"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("little-endian (this machine's)"), std::string::npos);
  EXPECT_NE(swapped.out.find("big-endian (swapped)"), std::string::npos) << swapped.out;
  EXPECT_NE(info.out.find("80 x 64, 16-bit unsigned"), std::string::npos);
  EXPECT_EQ(figure(info.out, " max "), double(coordinate(79, 63)));
  EXPECT_EQ(info.out.substr(info.out.find(" min ")), swapped.out.substr(swapped.out.find(" min ")));
  const Outcome json = cam({"info", "--json", "swapped.img"});
  EXPECT_NE(json.out.find(R"("format":"native","byte_order":"big-endian","swapped":true,)"),
            std::string::npos)
      << json.out;

  const Outcome fits = cam({"convert", "swapped.img", "from_swapped.fits"});
  ASSERT_EQ(fits.status, 0) << fits.err;
  verified("from_swapped.fits");
  const Hdu h = read_fits(dir_ / "from_swapped.fits").at(0);
  EXPECT_FALSE(h.has("EXPTIME")) << "a converted file knows nothing of its exposure";
  EXPECT_EQ(h.at(79, 63), coordinate(79, 63));
  ASSERT_EQ(cam({"convert", "swapped.img", "back.img"}).status, 0);
  EXPECT_EQ(slurp(dir_ / "back.img"), slurp(dir_ / "c.img")) << "native order, same pixels";
  // FITS comes back in: the same figures, and the same pixels through a native file.
  const Outcome from_fits = cam({"info", "from_swapped.fits"});
  ASSERT_EQ(from_fits.status, 0) << from_fits.err;
  EXPECT_NE(from_fits.out.find("format       FITS"), std::string::npos) << from_fits.out;
  EXPECT_EQ(from_fits.out.substr(from_fits.out.find(" min ")),
            info.out.substr(info.out.find(" min ")));
  ASSERT_EQ(cam({"convert", "from_swapped.fits", "from_fits.img"}).status, 0);
  EXPECT_EQ(slurp(dir_ / "from_fits.img"), slurp(dir_ / "c.img"));
  ASSERT_EQ(cam({"convert", "--stretch", "percentile", "c.img", "c.png"}).status, 0);
  EXPECT_EQ(read_png(dir_ / "c.png").width, 80u);

  // A FITS file keeps every region and the keywords tvx knows when it is converted.
  ASSERT_EQ(sim({"snap", "-e", "250", "-r", "0,0,16,8", "-r", "20,20,8,8", "--object", "M 31", "-o",
                 "two.fits"})
                .status,
            0);
  const Outcome copied = cam({"convert", "two.fits", "copy.fits"});
  ASSERT_EQ(copied.status, 0) << copied.err;
  verified("copy.fits");
  const std::vector<Hdu> original = read_fits(dir_ / "two.fits"),
                         copy = read_fits(dir_ / "copy.fits");
  ASSERT_EQ(copy.size(), 3u);
  EXPECT_EQ(original[1].text("EXPTIME"), "0.250");
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE("HDU " + std::to_string(i + 1));
    for (const char *key : {"EXPTIME", "DATE-OBS", "DATE-END", "IMAGETYP", "OBJECT", "EXTNAME",
                            "XORGSUBF", "YORGSUBF", "GAIN", "CCD-TEMP", "DETECTOR", "ROWORDER"})
      if (original[i].has(key)) {
        EXPECT_EQ(copy[i].keys.at(key), original[i].keys.at(key)) << key;
      }
    EXPECT_EQ(copy[i].pixels, original[i].pixels);
  }
  const Outcome info_two = cam({"info", "two.fits"});
  EXPECT_NE(info_two.out.find("region 2     8 x 8, 16-bit unsigned"), std::string::npos)
      << info_two.out;
  ASSERT_EQ(cam({"convert", "two.fits", "two.png"}).status, 0);
  EXPECT_EQ(read_png(dir_ / "two_r1.png").width, 16u);
  EXPECT_EQ(read_png(dir_ / "two_r2.png").width, 8u);

  std::ofstream(dir_ / "notes.txt") << "not an image\n";
  const Outcome refused = cam({"info", "notes.txt"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("not an image file tvx reads"), std::string::npos) << refused.err;
}

// ---- failures -------------------------------------------------------------------------------

TEST_F(Tvxcam, FailuresTellTheStoryAndExitNonZero) {
  {
    SCOPED_TRACE("a broken hardware file");
    const fs::path hw = copy_of_shipped("broken");
    replace_in(hw / "7100hw.def", "DEVICE\n", "DEVICE\n    unheard_of = 3\n");
    const Outcome r = sim({"--ccd", "broken/sim_small.def", "snap", "-o", "x.fits"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("tvxcam: failed while starting the controller"), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("unheard_of"), std::string::npos) << "the story names the bad row";
    EXPECT_NE(r.err.find("Possible cause"), std::string::npos) << "and the advice";
    EXPECT_TRUE(std::regex_search(
        r.err, std::regex(R"(section 'DEVICE' \(/.*/broken/7100hw\.def, line 105\))")))
        << "and the file and line of the section";
  }
  {
    SCOPED_TRACE("a bad word in the CCD file, read after the hardware file as one text");
    const fs::path ccd = copy_of_shipped("bad");
    replace_in(ccd / "sim_small.def", "    ysize = 64\n", "    12ab\n    ysize = 64\n");
    const Outcome r = sim({"--ccd", "bad/sim_small.def", "status"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(std::regex_search(
        r.err, std::regex(R"(unrecognized input at line \d+ \(bad/sim_small\.def, line 30\))")))
        << r.err;
  }
  {
    SCOPED_TRACE("a region off the chip, refused before the exposure");
    const auto start = std::chrono::steady_clock::now();
    const Outcome r = sim({"snap", "-e", "60000", "-r", "70,60,20,20", "-o", "off.fits"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("region specification (70 60, 20 20) off CCD chip (80 x 64)"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("Possible cause"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir_ / "off.fits"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  }
  for (const std::vector<std::string> &args : {std::vector<std::string>{"snap", "--frobnicate"},
                                               {"snap", "-r", "1,2,3"},
                                               {"snap", "-b", "0x2"},
                                               {"snap", "-m", "bright"},
                                               {"snap", "--black", "60", "--white", "40"},
                                               {"series", "-n", "0"},
                                               {"info"},
                                               {},
                                               {"snap", "-o", "pic.jpg"},
                                               {"snap", "-o", "x.fits.gz"},
                                               {"snap", "-o", "noext"},
                                               {"snap", "-o", "-"},
                                               {"snap", "--format", "png", "-o", "x.fits"},
                                               {"snap", "--type", "bias", "-e", "100"},
                                               {"snap", "--header", "NAXIS=3"},
                                               {"snap", "--header", "AIRMASS=nan"},
                                               {"snap", "--black", "nan"},
                                               {"snap", "--white", "inf"},
                                               {"cool", "-t", "nan"},
                                               {"cool", "--timeout", "nan"},
                                               {"convert", "a.img", "b.tiff"}}) {
    const Outcome r = cam(args);
    const std::string said = args.empty() ? "(nothing)" : args.back();
    EXPECT_EQ(r.status, 2) << said;
    EXPECT_NE(r.err.find("Usage: tvxcam"), std::string::npos) << said << "\n" << r.err;
    EXPECT_EQ(r.out, "");
  }
  const Outcome version = cam({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_TRUE(std::regex_match(version.out,
                               std::regex(R"(tvxcam \d+(\.\d+)+ \(library tvx \d+(\.\d+)+\)\n)")))
      << version.out;
  const Outcome missing = cam({"--ccd", "nowhere.def", "status"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("'nowhere.def': no such file"), std::string::npos) << missing.err;
}

// ---- the terminal and the demo -------------------------------------------------------------

// What tvxcam writes to a terminal, read from the far side of a pseudo-terminal.
std::string on_a_terminal(const fs::path &dir, const std::vector<std::string> &args) {
  std::vector<char *> argv{const_cast<char *>(TVXCAM)};
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0) _exit(126);
    execv(TVXCAM, argv.data());
    _exit(127);
  }
  std::string seen;
  char buffer[4096];
  for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;) seen.append(buffer, size_t(n));
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << seen;
  return seen;
}

TEST_F(Tvxcam, ProgressShowsOnATerminalUnlessQuiet) {
  const std::string shown = on_a_terminal(dir_, {"snap", "-e", "800", "-o", "t.fits"});
  EXPECT_NE(shown.find("exposing"), std::string::npos) << shown;
  EXPECT_TRUE(std::regex_search(shown, std::regex(R"(\[#+\.+\] +\d+%  0\.\d s left)"))) << shown;
  EXPECT_NE(shown.find("reading out"), std::string::npos);
  EXPECT_EQ(on_a_terminal(dir_, {"--quiet", "snap", "-e", "300", "-o", "q.fits"}), "");
}

TEST_F(Tvxcam, StarFieldOnTheLargeChipShowsStars) {
  const Outcome r = sim({"snap", "--ccd", (kShipped / "sim_large.def").string(), "--scene",
                         "starfield", "-e", "2000", "-o", "demo.fits", "-o", "demo.png"});
  ASSERT_EQ(r.status, 0) << r.err;
  verified("demo.fits");
  const Grey png = read_png(dir_ / "demo.png");
  ASSERT_EQ(std::make_pair(png.width, png.height), std::make_pair(2064u, 2048u));
  std::vector<unsigned char> ranked = png.pixels;
  std::nth_element(ranked.begin(), ranked.begin() + long(ranked.size() / 2), ranked.end());
  EXPECT_LT(ranked[ranked.size() / 2], 40) << "a dark sky";
  // Stars: separate bright spots, counted by flooding each one.
  std::vector<bool> seen(png.pixels.size());
  int stars = 0;
  for (size_t start = 0; start < png.pixels.size(); ++start) {
    if (seen[start] || png.pixels[start] < 200) continue;
    ++stars;
    std::vector<size_t> todo{start};
    seen[start] = true;
    while (!todo.empty()) {
      const size_t at = todo.back();
      todo.pop_back();
      const long x = long(at % png.width), y = long(at / png.width);
      static const long kSteps[4][2] = {{1, 0}, {-1, 0}, {0, 1}, {0, -1}};
      for (const auto &step : kSteps) {
        const long nx = x + step[0], ny = y + step[1];
        if (nx < 0 || ny < 0 || nx >= long(png.width) || ny >= long(png.height)) continue;
        const size_t next = size_t(ny) * png.width + size_t(nx);
        if (!seen[next] && png.pixels[next] >= 200) seen[next] = true, todo.push_back(next);
      }
    }
  }
  EXPECT_GT(stars, 300) << "stars enough to see";
  EXPECT_LT(stars, 20000) << "and not noise";
}

}  // namespace
