// Throughput of the QMF analysis per kernel, in samples per second and as a
// multiple of real time for one 48 kHz channel, and the cost of deriving a bank.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

#include "dsp/qmf.h"

namespace {

using namespace tavrin;

constexpr double kRate = 48000.0;

std::vector<double> noise_frames(std::size_t frames) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> dist(-0.5, 0.5);
  std::vector<double> v(frames * kQmfFrameSamples);
  for (double& x : v) x = dist(rng);
  return v;
}

const QmfKernel* kernel_or_skip(benchmark::State& state) {
  const QmfKernel* kernel = qmf_kernel_by_id(static_cast<QmfKernelId>(state.range(0)));
  if (kernel == nullptr) state.SkipWithError("kernel not offered by this processor");
  else state.SetLabel(kernel->name);
  return kernel;
}

void report(benchmark::State& state, double samples_per_iteration) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * samples_per_iteration));
  state.counters["x_realtime_48k"] =
      benchmark::Counter(samples_per_iteration / kRate, benchmark::Counter::kIsIterationInvariantRate);
}

// The path the encoders use: whole frames, each matrix applied to 32 blocks at once.
void BM_QmfFrame(benchmark::State& state) {
  const QmfKernel* kernel = kernel_or_skip(state);
  if (kernel == nullptr) return;
  const auto bank = std::make_unique<QmfAnalysisBank>();
  const std::size_t frames = 16;
  const std::vector<double> pcm = noise_frames(frames);
  std::size_t f = 0;
  for (auto _ : state) {
    SubbandBlock out = analyse_frame(*bank, pcm.data() + f * kQmfFrameSamples, *kernel);
    benchmark::DoNotOptimize(out.samples.data());
    f = (f + 1) % frames;
  }
  report(state, static_cast<double>(kQmfFrameSamples));
}
BENCHMARK(BM_QmfFrame)->DenseRange(0, 2);

// Block by block with the matrix-vector kernel, for comparison.
void BM_QmfBlocks(benchmark::State& state) {
  const QmfKernel* kernel = kernel_or_skip(state);
  if (kernel == nullptr) return;
  const auto bank = std::make_unique<QmfAnalysisBank>();
  const std::vector<double> pcm = noise_frames(1);
  for (auto _ : state) {
    for (std::size_t b = 0; b < kQmfBlocksPerFrame; ++b) {
      QmfVector out = analyse_block(*bank, pcm.data() + b * kQmfBands, *kernel);
      benchmark::DoNotOptimize(out.data());
    }
  }
  report(state, static_cast<double>(kQmfFrameSamples));
}
BENCHMARK(BM_QmfBlocks)->DenseRange(0, 2);

// Start-up: one bank per channel.
void BM_QmfBankDerivation(benchmark::State& state) {
  const QmfKernel* kernel = kernel_or_skip(state);
  if (kernel == nullptr) return;
  for (auto _ : state) {
    auto bank = std::make_unique<QmfAnalysisBank>(qmf_perfect_prototype(), *kernel);
    benchmark::DoNotOptimize(bank->gain);
  }
}
BENCHMARK(BM_QmfBankDerivation)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
