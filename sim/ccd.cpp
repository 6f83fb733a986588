#include "sim/ccd.h"

#include <algorithm>
#include <cmath>

namespace tvx::sim {

namespace {

constexpr size_t kHostBlockBytes = 65464;  // the host never takes a block across its own

uint16_t swapped(uint16_t w) {
  return static_cast<uint16_t>(w << 8 | w >> 8);
}

// Rounded to the nearest level and kept to what the converter gives.
uint16_t to_level(double levels) {
  if (!(levels > 0)) return 0;
  if (levels >= 65535) return 65535;
  return static_cast<uint16_t>(levels + 0.5);
}

}  // namespace

// A lone pixel's charge and read noise are drawn as one normal deviate where both are normal
// and the charge lies far from zero and from the full well, so that neither clamp could act.
const double kOneDrawBelow = kFullWell - 8.0 * std::sqrt(kFullWell);

void ChargeDraws::prepare(double mean, double read_noise, bool table, const ChargeDraws *near) {
  mean_ = mean;
  read_noise_ = read_noise;
  tabled_ = table && mean < kExactPoissonBelow;
  if (mean >= kExactPoissonBelow) {
    root_ = std::sqrt(mean);
    root_with_read_ = std::sqrt(mean + read_noise * read_noise);
    return;
  }
  const double d = near != nullptr ? mean - near->mean_ : 1.0;
  if (near != nullptr && near->mean_ >= 0 && near->mean_ < kExactPoissonBelow &&
      std::fabs(d) < 1e-3) {
    // The faint wings of a star lift the sky by a trace: exp(-mean) from the sky's, by a series
    // whose first omitted term, d^5 / 120, lies below a double's precision.
    exp_minus_ = near->exp_minus_ * (1.0 - d * (1.0 - d * (0.5 - d * (1.0 / 6.0 - d / 24.0))));
  } else {
    exp_minus_ = std::exp(-std::max(mean, 0.0));
  }
  if (tabled_) table_.build(std::max(mean, 0.0));
}

inline double ChargeDraws::charge(Random &random) const {
  if (mean_ <= 0) return 0;
  if (tabled_) return table_.draw(random);
  if (mean_ < kExactPoissonBelow) return random.poisson(mean_, exp_minus_);
  return std::clamp(mean_ + root_ * random.normal(), 0.0, kFullWell);
}

inline double ChargeDraws::lone_signal(Random &random, Random &noise) const {
  if (mean_ >= kExactPoissonBelow && mean_ < kOneDrawBelow)
    return mean_ + root_with_read_ * noise.normal();
  return charge(random) + read_noise_ * noise.normal();
}

bool LevelTable::build(double mean, double read_noise, double black, double levels_per_electron) {
  // The signal in levels is a mixture of normal peaks: one for each count of a small mean, at
  // that count's level, or one for a large mean, its charge and read noise together.
  struct Peak {
    double weight, centre, spread;
  };
  std::vector<Peak> peaks;
  if (mean < kExactPoissonBelow) {
    double p = std::exp(-mean), sum = 0;
    for (int k = 0; sum < 1.0 - 1e-17 && k < 128; ++k) {
      peaks.push_back({p, black + k * levels_per_electron, read_noise * levels_per_electron});
      sum += p;
      p *= mean / (k + 1);
    }
  } else if (mean < kOneDrawBelow) {
    peaks.push_back({1.0, black + mean * levels_per_electron,
                     std::sqrt(mean + read_noise * read_noise) * levels_per_electron});
  } else {
    return false;  // the full well clips these charges
  }
  // Levels beyond eight spreads of every peak are left out: together they would come up less
  // than once in 10^15 pixels.
  double low = peaks.front().centre - 8 * peaks.front().spread;
  double high = peaks.back().centre + 8 * peaks.back().spread;
  low = std::clamp(std::floor(low), 0.0, 65535.0);
  high = std::clamp(std::ceil(high), 0.0, 65535.0);
  if (high - low > 4096) return false;
  first_ = int(low);
  cumulative_.assign(size_t(high - low) + 1, 0.0);
  for (size_t i = 0; i + 1 < cumulative_.size(); ++i) {
    // A signal below first_ + i + 1/2 rounds to level first_ + i or below; below 0 it reads 0.
    const double edge = first_ + double(i) + 0.5;
    double sum = 0;
    for (const Peak &p : peaks)
      sum += p.weight * (p.spread > 0 ? 0.5 * std::erfc((p.centre - edge) / (p.spread * M_SQRT2))
                         : p.centre < edge ? 1.0
                                           : 0.0);
    cumulative_[i] = sum;
  }
  cumulative_.back() = 1.0;
  guide_.resize(std::min<size_t>(cumulative_.size() * 4, 1024));
  size_t i = 0;
  for (size_t j = 0; j < guide_.size(); ++j) {
    while (cumulative_[i] <= double(j) / double(guide_.size())) ++i;
    guide_[j] = uint32_t(i);
  }
  return true;
}

void Ccd::begin_frame(const ChipSetup &chip, const Charge &charge, uint32_t frame) {
  chip_ = chip;
  scene_ = scene_settings();
  active_ = std::max(chip.width - kReferenceColumns, 1);
  flux_.prepare(scene_, active_, chip.height);
  row_.resize(size_t(active_));
  row_y_ = -1;
  light_seconds_ = charge.light_seconds;
  dark_electrons_ = scene_.dark_current *
                    std::pow(2.0, (charge.kelvin - kDarkReference) / kDarkDoubling) *
                    charge.dark_seconds;
  levels_per_electron_ = 1.0 / chip.electrons_per_level;
  last_ = ChargeDraws();
  const float level = flux_.level();
  share(&background_, expected(&level, 0));
  share(&covered_, 0.0);
  random_.reseed(uint64_t{scene_.seed} << 32 | frame);
  noise_.reseed(~(uint64_t{scene_.seed} << 32 | frame));
}

void Ccd::share(Shared *shared, double mean) {
  shared->draws.prepare(mean, scene_.read_noise, tables_);
  shared->tabled =
      tables_ && !chip_.two_channel &&
      shared->levels.build(mean, scene_.read_noise, chip_.blacklevel, levels_per_electron_);
}

void Ccd::coordinate_row(int x, int y, int count, int bx, int by, uint32_t *out) const {
  for (int n = 0; n < count; ++n, x += bx) {
    uint16_t sum = 0;
    for (int j = 0; j < by; ++j)
      for (int i = 0; i < bx; ++i) sum = static_cast<uint16_t>(sum + coordinate_code(x + i, y + j));
    out[n] = chip_.two_channel ? uint32_t{sum} << 16 | coordinate_second(sum) : sum;
  }
}

const float *Ccd::flux_row(int y) {
  if (y < 0 || y >= chip_.height) return nullptr;
  if (y != row_y_) {
    flux_.row(y, row_.data());
    row_y_ = y;
  }
  return row_.data();
}

void Ccd::binned_row(int x, int y, int count, int bx, int by, uint32_t *out) {
  sums_.assign(size_t(count), 0.0);
  for (int j = 0; j < by; ++j) {
    const float *flux = flux_row(y + j);
    for (int n = 0; n < count; ++n)
      for (int i = 0; i < bx; ++i)
        sums_[size_t(n)] += draws(expected(flux, x + n * bx + i)).charge(random_);
  }
  for (int n = 0; n < count; ++n)
    out[n] = convert(std::min(sums_[size_t(n)], kSerialWell) + scene_.read_noise * noise_.normal());
}

inline uint32_t Ccd::convert(double signal) const {
  const uint16_t first = to_level(chip_.blacklevel + signal * levels_per_electron_);
  if (!chip_.two_channel) return first;
  const uint16_t second =
      to_level(chip_.blacklevel + signal * levels_per_electron_ / kSecondChannelGain);
  return uint32_t{first} << 16 | second;
}

void Ccd::read_row(int x, int y, int count, int bx, int by, uint32_t *out) {
  if (scene_.kind == SceneKind::coordinates) return coordinate_row(x, y, count, bx, by, out);
  if (bx > 1 || by > 1) return binned_row(x, y, count, bx, by, out);
  const float *flux = flux_row(y);
  // The generators' states as locals, which the compiler keeps in registers.
  Random random = random_, noise = noise_;
  for (int n = 0; n < count; ++n) out[n] = lone_pixel(expected(flux, x + n), random, noise);
  random_ = random;
  noise_ = noise;
}

namespace {

// A run of the host's image as output words: 16-bit words, low word of a 32-bit pixel first.
void output_words(const uint32_t *pixels, size_t count, int words_per_pixel,
                  std::vector<uint16_t> *out) {
  out->resize(count * size_t(words_per_pixel));
  uint16_t *o = out->data();
  for (size_t i = 0; i < count; ++i) {
    *o++ = static_cast<uint16_t>(pixels[i]);
    if (words_per_pixel == 2) *o++ = static_cast<uint16_t>(pixels[i] >> 16);
  }
}

// Words on the wire for `n` output words starting at `o`, the first of them at the start of a
// block (data mode 9 offsets the odd places of a block).
void encode(const StreamFormat &f, const uint16_t *o, size_t n, std::vector<uint16_t> *w) {
  const auto k = f.constants;
  auto sub = [](uint16_t v, int16_t c) { return static_cast<uint16_t>(v - uint16_t(c)); };
  auto hi = [](uint16_t v) { return static_cast<uint16_t>(v >> 8); };
  auto lo = [](uint16_t v) { return static_cast<uint16_t>(v & 0xFF); };
  switch (f.data_mode) {
    case 0:
    case 9: {
      // One wire word per output word; mode 9 offsets the odd places.
      const size_t at = w->size();
      w->resize(at + n);
      uint16_t *to = w->data() + at;
      const uint16_t odd = f.data_mode == 9 ? uint16_t(k[0]) : 0;
      for (size_t i = 0; i < n; ++i) to[i] = swapped(static_cast<uint16_t>(o[i] - (i % 2) * odd));
      return;
    }
    case 5:
      for (size_t i = 0; i + 1 < n; i += 2) {
        const uint16_t p0 = o[i], q1 = sub(o[i + 1], k[0]);
        w->push_back(static_cast<uint16_t>(hi(q1) << 8 | hi(p0)));
        w->push_back(static_cast<uint16_t>(lo(q1) << 8 | lo(p0)));
      }
      return;
    case 10:
      for (size_t i = 0; i + 1 < n; i += 2) {
        w->push_back(static_cast<uint16_t>(hi(o[i]) << 8 | hi(o[i + 1])));
        w->push_back(static_cast<uint16_t>(lo(o[i]) << 8 | lo(o[i + 1])));
      }
      return;
    case 14:
      for (size_t i = 0; i + 3 < n; i += 4) {
        const uint16_t p0 = o[i], q1 = sub(o[i + 1], k[0]), q2 = sub(o[i + 2], k[1]),
                       q3 = sub(o[i + 3], k[2]);
        w->push_back(static_cast<uint16_t>(hi(q1) << 8 | hi(p0)));
        w->push_back(static_cast<uint16_t>(hi(q3) << 8 | hi(q2)));
        w->push_back(static_cast<uint16_t>(lo(q1) << 8 | lo(p0)));
        w->push_back(static_cast<uint16_t>(lo(q3) << 8 | lo(q2)));
      }
      return;
    case 18:
      // Three pixels in four words: the second word goes to a channel the host overwrites.
      for (size_t i = 0; i + 2 < n; i += 3) {
        w->push_back(swapped(o[i]));
        w->push_back(swapped(sub(o[i + 1], k[0])));
        w->push_back(swapped(sub(o[i + 1], k[1])));
        w->push_back(swapped(sub(o[i + 2], k[2])));
      }
      return;
    default:
      for (size_t i = 0; i < n; ++i) w->push_back(o[i]);
      return;
  }
}

// Words a block must be a multiple of, and output words per wire word (as a ratio).
int multiple_of(int mode) {
  return mode == 5 || mode == 10 ? 2 : mode == 14 || mode == 18 ? 4 : 1;
}

}  // namespace

void FrameEncoder::start(PixelSource pixels, size_t count, const StreamFormat &format,
                         const StreamFault &fault) {
  pixels_ = std::move(pixels);
  count_ = count;
  done_ = sent_ = 0;
  format_ = format;
  fault_ = fault;
  const size_t raster_words = size_t(format.raster_pixels) * size_t(format.words_per_pixel);
  const size_t rasters = std::max<size_t>(kHostBlockBytes / (raster_words * 2), 1);
  host_pixels_ = rasters * size_t(format.raster_pixels);
  state_ = format.seed * 747796405u + 2891336453u;
  first_ = true;
  broken_ = false;
}

size_t FrameEncoder::next_size(size_t left) {
  const size_t multiple = size_t(multiple_of(format_.data_mode));
  state_ = state_ * 1664525u + 1013904223u;
  const size_t most = std::min<size_t>(30 / multiple * multiple, left);
  if (most < multiple) return left;  // a remnant the host will refuse, as it must
  // Most blocks may take any size up to the largest, whose count of choices is a constant the
  // compiler divides by without a division.
  const uint32_t r = state_ >> 16;
  const size_t choices = most / multiple;
  const size_t pick = choices == 30   ? r % 30
                      : choices == 15 ? r % 15
                      : choices == 7  ? r % 7
                                      : r % choices;
  return (1 + pick) * multiple;
}

bool FrameEncoder::next(std::vector<uint16_t> *words, std::vector<size_t> *block_ends) {
  words->clear();
  block_ends->clear();
  if (done_ >= count_ || broken_) return false;
  const StreamFormat &f = format_;
  const size_t n = std::min(host_pixels_, count_ - done_);
  block_.resize(n);
  pixels_(block_.data(), n);
  done_ += n;
  output_words(block_.data(), n, f.words_per_pixel, &out_);
  // Wire words the host counts for this pixel block: its size in output words. Where a wire
  // word carries one output word, each block is encoded as it goes out (mode 9 offsets the odd
  // places of each block); modes that pack words in groups are encoded whole first, so that a
  // spoilt block size cuts a group as it would on the wire. Mode 18 sends four wire words per
  // three pixels.
  const bool by_block = multiple_of(f.data_mode) == 1;
  if (!by_block) {
    wire_.clear();
    encode(f, out_.data(), f.data_mode == 18 ? out_.size() / 4 * 3 : out_.size(), &wire_);
    wire_.resize(out_.size(), 0);
  }
  words->reserve(out_.size() * 9 / 8 + 8);
  for (size_t at = 0; at < out_.size();) {
    size_t size = next_size(out_.size() - at);
    if (first_ && fault_.block_size >= 0) size = size_t(fault_.block_size);
    first_ = false;
    words->push_back(static_cast<uint16_t>(size));
    const size_t taken = std::min(size, out_.size() - at);
    if (by_block)
      encode(f, out_.data() + at, taken, words);
    else
      words->insert(words->end(), wire_.begin() + long(at), wire_.begin() + long(at + taken));
    words->resize(words->size() + (size - taken), 0);  // a spoilt size runs past the data
    at += size;
    block_ends->push_back(words->size());
  }
  // A stream that breaks off ends inside this pixel block: its last block is cut short there.
  const size_t stop = size_t(fault_.stop_after);
  if (fault_.stop_after >= 0 && stop < sent_ + words->size()) {
    words->resize(stop - sent_);
    while (!block_ends->empty() && block_ends->back() > words->size()) block_ends->pop_back();
    block_ends->push_back(words->size());
    broken_ = true;
  }
  sent_ += words->size();
  return true;
}

}  // namespace tvx::sim
