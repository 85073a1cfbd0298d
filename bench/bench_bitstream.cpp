// Cost of writing one large frame: header, primary header and four
// subframes of five channels with every subband coded at high ABITS.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "bitstream/bit_writer.h"
#include "bitstream/frame.h"

namespace {

using namespace tavrin;

CoreFrame make_large_frame() {
  constexpr unsigned kChannels = 5;
  CoreFrame f;
  f.header.amode = 9;
  f.header.sample_rate = 48000;
  f.header.bitrate = 1536000;
  f.header.filts = 1;
  f.header.lff = 2;
  f.payload.lff = 2;
  PrimaryHeader& h = f.payload.header;
  h.subfs = 4;
  for (unsigned c = 0; c < kChannels; ++c) {
    h.subs.push_back(32);
    h.vqsub.push_back(32);
    h.joinx.push_back(0);
    h.thuff.push_back(0);
    h.shuff.push_back(6);
    h.bhuff.push_back(6);
    h.sel.push_back({1, 3, 3, 3, 3, 7, 7, 7, 7, 7});
  }
  for (unsigned k = 0; k < 4; ++k) {
    Subframe s;
    s.ssc = 1;
    for (unsigned c = 0; c < kChannels; ++c) {
      s.pmode.emplace_back(32, 0);
      s.pvq.emplace_back(32, 0);
      s.tmode.emplace_back(32, 0);
      s.scale2.emplace_back(32, 0);
      std::vector<std::uint8_t> abits(32), scale(32);
      std::vector<std::int32_t> audio(256);
      for (unsigned b = 0; b < 32; ++b) {
        abits[b] = static_cast<std::uint8_t>(23 + (b + c + k) % 3);  // 20..22-bit samples
        scale[b] = static_cast<std::uint8_t>(40 + b);
        const std::int32_t half = 1 << (abits[b] - 4);
        for (unsigned i = 0; i < 8; ++i)
          audio[b * 8 + i] = static_cast<std::int32_t>((b * 7919u + i * 104729u + c * 13u) % (2u * half)) - half;
        if (b % 4 == 1) {
          s.pmode[c][b] = 1;
          s.pvq[c][b] = static_cast<std::uint16_t>(b * 100 + c);
        }
      }
      s.abits.push_back(abits);
      s.scale.push_back(scale);
      s.audio.push_back(audio);
    }
    s.lfe = {1, -2, 3, -4};
    s.lfe_scale = 60;
    f.payload.subframes.push_back(s);
  }
  const std::uint64_t bytes = (104 + payload_bit_count(f.payload) + 7) / 8;
  f.header.frame_bytes = static_cast<std::uint16_t>(bytes);
  return f;
}

void BM_WriteLargeFrame(benchmark::State& state) {
  CoreFrame frame = make_large_frame();
  const std::uint32_t target = frame.header.frame_bytes;
  for (auto _ : state) {
    write_frame(frame, target, FrameKind::multichannel);
    benchmark::DoNotOptimize(frame.bytes.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * target);
  state.counters["frame_bytes"] = target;
  state.counters["frames/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_WriteLargeFrame);

// The bare writer: a frame's worth of 13-bit fields.
void BM_BitWriterFields(benchmark::State& state) {
  constexpr unsigned kFields = 16384 * 8 / 13;
  for (auto _ : state) {
    BitWriter w;
    for (unsigned i = 0; i < kFields; ++i) w.write(i & 0x1FFFu, 13);
    w.align_to_byte();
    benchmark::DoNotOptimize(w.bytes().data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kFields * 13 / 8);
}
BENCHMARK(BM_BitWriterFields);

}  // namespace

BENCHMARK_MAIN();
