#include "dsp/quantizer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bitstream/bit_writer.h"
#include "dsp/quant_tables.h"

namespace tavrin {
namespace {

std::string message_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "<no invalid_argument>";
}

TEST(QuantTables, CheckValuesAndLengths) {
  ASSERT_EQ(kScaleFactor6Count, 63u);
  ASSERT_EQ(kScaleFactor6.size(), 64u);
  const std::vector<double> first = {1, 2, 2, 3, 3, 4, 6, 7, 10, 12, 16, 20, 26, 34};
  for (std::size_t i = 0; i < first.size(); ++i) EXPECT_EQ(kScaleFactor6[i], first[i]) << i;
  EXPECT_EQ(kScaleFactor6[60], 5011872.0);
  EXPECT_EQ(kScaleFactor6[61], 6456542.0);
  EXPECT_EQ(kScaleFactor6[62], 8317638.0);
  EXPECT_EQ(kScaleFactor6[63], 0.0);
  for (std::size_t i = 1; i < kScaleFactor6Count; ++i) EXPECT_GE(kScaleFactor6[i], kScaleFactor6[i - 1]) << i;

  ASSERT_EQ(kStepSize.size(), 27u);
  EXPECT_EQ(kStepSize[0], 0.0);
  EXPECT_EQ(step_size(1), 1.5999999046325684);
  EXPECT_EQ(step_size(2), 1.0);
  EXPECT_EQ(step_size(8), 0.19000005722045898);
  EXPECT_EQ(step_size(26), 5.0067901611328125e-06);
  for (std::size_t a = 2; a < kStepSize.size(); ++a) EXPECT_LT(kStepSize[a], kStepSize[a - 1]) << a;
}

TEST(Quantizer, LookupsRejectOutOfRange) {
  EXPECT_EQ(scale_value(62), 8317638.0);
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[] { scale_value(63); }, "invalid DTS 6-bit scale-factor index"},
      {[] { step_size(27); }, "invalid DTS lossy ABITS"},
      {[] { nfe_width(7); }, "NFE direct coding requires ABITS 8..26"},
      {[] { nfe_width(27); }, "NFE direct coding requires ABITS 8..26"},
      {[] { choose_baseline_quantizer(nullptr, 1, 8, 26); }, "null samples"},
      {[] { double x = 1; choose_baseline_quantizer(&x, 1, 7, 26); }, "baseline ABITS range must be within 8..26"},
      {[] { double x = 1; choose_baseline_quantizer(&x, 1, 8, 27); }, "baseline ABITS range must be within 8..26"},
      {[] { double x = 1; choose_baseline_quantizer(&x, 1, 12, 11); }, "baseline ABITS range must be within 8..26"},
      {[] { dequantize(0, QuantizerChoice{7, 0, 1, 1, 1}); }, "direct NFE quantizer requires ABITS 8..26"},
      {[] { dequantize(16, QuantizerChoice{8, 0, 1, 1, 1}); }, "quantization index outside DTS NFE range"},
      {[] { dequantize(-17, QuantizerChoice{8, 0, 1, 1, 1}); }, "quantization index outside DTS NFE range"},
      {[] { quantize(1.0, QuantizerChoice{27, 0, 1, 1, 1}); }, "direct NFE quantizer requires ABITS 8..26"},
  };
  for (const auto& [f, want] : cases) EXPECT_EQ(message_of(f), want);
  EXPECT_EQ(nfe_width(8), 5u);
  EXPECT_EQ(nfe_width(26), 23u);
  EXPECT_NO_THROW(choose_baseline_quantizer(nullptr, 0, 8, 26));
}

TEST(Quantizer, ChoosesFirstFittingAbitsAndSmallestScale) {
  const double step8 = 0.19000005722045898;
  const double peak_max26 = 4194303.0 * step_size(26) * 8317638.0;
  struct Case {
    double peak;
    unsigned low, high;
    unsigned abits, scale_index;
  };
  const std::vector<Case> cases = {
      {1e-18, 8, 26, 0, 0},
      {15 * step8, 8, 26, 8, 0},
      {15 * step8 * 1.0001, 8, 26, 8, 1},  // a bigger scale, not a bigger ABITS
      {15 * step8 * 8317638.0, 8, 26, 8, 62},
      {15 * step8 * 8317638.0 * 1.0001, 8, 26, 9, 62},
      {peak_max26, 26, 26, 26, 62},
      {1e-17, 16, 16, 16, 0},
  };
  for (const auto& c : cases) {
    // The sign must not matter: the peak is taken over magnitudes.
    const std::vector<double> samples = {0.0, -c.peak, c.peak * 0.5};
    const QuantizerChoice q = choose_baseline_quantizer(samples.data(), samples.size(), c.low, c.high);
    EXPECT_EQ(q.abits, c.abits) << c.peak;
    EXPECT_EQ(q.scale_index, c.scale_index) << c.peak;
    if (c.abits == 0) {
      EXPECT_EQ(q.scale, 0.0);
      EXPECT_EQ(q.quantum, 0.0);
    } else {
      EXPECT_EQ(q.scale, scale_value(c.scale_index));
      EXPECT_EQ(q.step, step_size(c.abits));
      EXPECT_EQ(q.quantum, q.scale * q.step);
      EXPECT_LE(c.peak / q.quantum, std::ldexp(1.0, c.abits - 4) - 1 + 1e-9);
    }
  }
  const double too_big = peak_max26 * 1.0001;
  EXPECT_EQ(message_of([&] { choose_baseline_quantizer(&too_big, 1, 26, 26); }),
            "DTS baseline quantizer cannot represent subband peak");
}

TEST(Quantizer, RoundsHalfToEvenClampsAndReconstructs) {
  const QuantizerChoice c{8, 3, 3.0, step_size(8), 3.0 * step_size(8)};
  struct Case {
    double units;
    std::int32_t index;
  };
  const std::vector<Case> cases = {{2.5, 2}, {3.5, 4}, {-2.5, -2}, {0.49, 0}, {15.0, 15},
                                   {15.6, 15}, {1e30, 15}, {-16.0, -16}, {-1e30, -16}};
  for (const auto& k : cases) EXPECT_EQ(quantize(k.units * c.quantum, c), k.index) << k.units;
  EXPECT_EQ(quantize(NAN, c), 0);
  EXPECT_EQ(quantize(123.0, QuantizerChoice{}), 0);
  EXPECT_EQ(dequantize(-16, c), -16 * c.quantum);
  EXPECT_EQ(dequantize(5, QuantizerChoice{}), 0.0);
  const QuantizerChoice wide{26, 0, 1.0, step_size(26), step_size(26)};
  EXPECT_EQ(quantize(1e9, wide), 4194303);
  EXPECT_EQ(quantize(-1e9, wide), -4194304);
}

TEST(Quantizer, WritesNfeFieldsAndDsync) {
  struct Case {
    std::int32_t index;
    unsigned abits;
    std::uint32_t code;  // expected field, ABITS - 3 bits wide
  };
  const std::vector<Case> cases = {{-16, 8, 0x10}, {15, 8, 0x0F}, {-1, 8, 0x1F}, {0, 12, 0},
                                   {-4194304, 26, 0x400000}, {4194303, 26, 0x3FFFFF}, {-1, 26, 0x7FFFFF}};
  for (const auto& c : cases) {
    BitWriter w;
    write_nfe(w, c.index, c.abits);
    ASSERT_EQ(w.bit_count(), c.abits - 3);
    std::uint32_t got = 0;
    for (unsigned i = 0; i < w.bit_count(); ++i) got = (got << 1) | ((w.bytes()[i / 8] >> (7 - i % 8)) & 1u);
    EXPECT_EQ(got, c.code) << c.index << " @" << c.abits;
  }
  BitWriter w;
  EXPECT_EQ(message_of([&] { write_nfe(w, 16, 8); }), "NFE quantization index out of signed range");
  EXPECT_EQ(message_of([&] { write_nfe(w, -17, 8); }), "NFE quantization index out of signed range");
  EXPECT_EQ(message_of([&] { write_nfe(w, 0, 7); }), "NFE direct coding requires ABITS 8..26");
  EXPECT_EQ(w.bit_count(), 0u);
  write_dsync(w);
  EXPECT_EQ(w.bytes(), (std::vector<std::uint8_t>{0xFF, 0xFF}));
}

}  // namespace
}  // namespace tavrin
