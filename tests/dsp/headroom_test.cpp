#include "dsp/headroom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace tavrin {
namespace {

// Two channels whose every band holds `level` in each slot (the first
// channel's band 0 only for the slots in `loud`).
std::vector<SubbandBlock> frame(double level, double loud = 0.0, std::size_t from = 0, std::size_t to = 0) {
  std::vector<SubbandBlock> f(2);
  for (SubbandBlock& c : f) c.samples.fill(level);
  for (std::size_t s = from; s < to; ++s) f[0].samples[s * kQmfBands] = loud;
  return f;
}

double slot_gain(const std::vector<SubbandBlock>& after, double level, std::size_t slot) {
  return after[1].samples[slot * kQmfBands + 5] / level;
}

TEST(Headroom, FramesThatFitAreUntouched) {
  HeadroomState state;
  for (const double level : {0.0, 1000.0, kHeadroomLimit, -kHeadroomLimit}) {
    std::vector<SubbandBlock> f = frame(level);
    std::vector<double> lfe(1024, 0.5);
    EXPECT_FALSE(apply_headroom(state, f, lfe.data()));
    EXPECT_EQ(f[0].samples, frame(level)[0].samples);
    EXPECT_EQ(lfe, std::vector<double>(1024, 0.5));
  }
  EXPECT_EQ(state.frames_lowered, 0u);
}

// A loud burst in the middle of a frame: the gain ramps down ahead of it by
// at most 1 dB a slot, every sample fits, the LFE follows the same gain,
// the gain holds for 128 slots and then recovers by 0.25 dB a frame.
TEST(Headroom, LowersAheadOfAPeakHoldsThenRecovers) {
  const double level = 1e6, loud = 2.0 * kHeadroomLimit;
  HeadroomState state;
  std::vector<SubbandBlock> f = frame(level, -loud, 16, 20);
  std::vector<double> lfe(1024, 1.0);
  ASSERT_TRUE(apply_headroom(state, f, lfe.data()));
  for (const SubbandBlock& c : f)
    for (const double v : c.samples) EXPECT_LE(std::fabs(v), kHeadroomLimit * (1 + 1e-12));
  EXPECT_NEAR(slot_gain(f, level, 16), 0.5, 1e-12);
  EXPECT_EQ(slot_gain(f, level, 0), 1.0);
  for (std::size_t s = 1; s < 32; ++s) {
    const double step_db = 20 * std::log10(slot_gain(f, level, s - 1) / slot_gain(f, level, s));
    EXPECT_LE(step_db, 1.0 + 1e-9) << s;
    EXPECT_NEAR(lfe[s * 32], slot_gain(f, level, s), 1e-12) << s;
  }
  EXPECT_NEAR(state.least_gain, 0.5, 1e-12);

  // Quiet frames: held for the rest of the 128 slots, then 0.25 dB a frame.
  std::vector<double> end_gain;
  for (int n = 0; n < 8; ++n) {
    std::vector<SubbandBlock> q = frame(level);
    apply_headroom(state, q, nullptr);
    end_gain.push_back(slot_gain(q, level, 31));
  }
  EXPECT_EQ(end_gain[2], 0.5);  // slots 32..127 after the burst's last slot
  EXPECT_NEAR(20 * std::log10(end_gain[5] / end_gain[4]), 0.25, 1e-9);
  EXPECT_EQ(state.frames_lowered, 9u);
}

}  // namespace
}  // namespace tavrin
