// Speed and memory of the real program: generated programme material (see
// programme.h) is written to a temporary file, tavrin-dts (the binary next to
// this one) encodes it in a child process, and the counters report how many
// times faster than real time the child ran and its peak resident memory.
//
//   x_realtime   audio seconds / wall seconds of the child
//   ms_per_frame wall milliseconds per 1024-sample frame
//   peak_rss_MB  the child's ru_maxrss
//
// BM_Encode arguments: {channels (2 or 6), seconds, kbit/s, input (0 WAVE,
// 1 FLAC)}; BM_MatrixEncode: {seconds, bass management, input}.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>
#include <stdexcept>
#include <string>
#include <vector>

#include "programme.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kRate = 48000;

fs::path encoder_path() { return fs::read_symlink("/proc/self/exe").parent_path() / "tavrin-dts"; }

fs::path scratch_dir() {
  const fs::path dir = fs::temp_directory_path() / ("tavrin-bench-encode-" + std::to_string(getpid()));
  fs::create_directories(dir);
  return dir;
}

// Waits for a child and reports its wall time and peak memory.
struct ChildRun {
  double wall_seconds = 0.0;
  long peak_rss_kb = 0;
};

ChildRun run_child(std::vector<std::string> args, bool quiet_stdout) {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (quiet_stdout) posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error("cannot start " + args[0]);
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid) throw std::runtime_error("wait4 failed");
  const auto stop = std::chrono::steady_clock::now();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(args[0] + " failed on " + args[1]);
  return {std::chrono::duration<double>(stop - start).count(), usage.ru_maxrss};
}

// Inputs are generated on first use and removed when the program ends.
struct Inputs {
  fs::path dir = scratch_dir();
  std::map<std::tuple<unsigned, unsigned, bool>, fs::path> files;
  ~Inputs() {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }
  const fs::path& get(unsigned channels, unsigned seconds, bool flac) {
    const auto key = std::make_tuple(channels, seconds, flac);
    auto it = files.find(key);
    if (it == files.end()) {
      const std::string stem = "programme-" + std::to_string(channels) + "ch-" + std::to_string(seconds) + "s";
      const fs::path wav = dir / (stem + ".wav");
      if (!fs::exists(wav)) bench::write_programme_wav(wav.string(), channels, kRate, seconds);
      fs::path path = wav;
      if (flac) {
        path = dir / (stem + ".flac");
        run_child({"flac", "-s", "-f", "--no-padding", "-o", path.string(), wav.string()}, true);
      }
      it = files.emplace(key, path).first;
    }
    return it->second;
  }
};

Inputs& inputs() {
  static Inputs instance;
  return instance;
}

// Encodes one generated input with `options` once per iteration and
// reports speed and the child's peak memory.
void encode_input(benchmark::State& state, unsigned channels, unsigned seconds, bool flac,
                  const std::vector<std::string>& options) {
  fs::path input;
  try {
    input = inputs().get(channels, seconds, flac);
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  const fs::path output = inputs().dir / "out.dts";
  double wall = 0.0;
  long peak = 0;
  for (auto _ : state) {
    std::vector<std::string> args = {encoder_path().string(), input.string(), output.string(), "-q"};
    args.insert(args.end(), options.begin(), options.end());
    ChildRun run;
    try {
      run = run_child(args, true);
    } catch (const std::exception& e) {
      state.SkipWithError(e.what());
      return;
    }
    state.SetIterationTime(run.wall_seconds);
    wall += run.wall_seconds;
    peak = std::max(peak, run.peak_rss_kb);
  }
  const double runs = static_cast<double>(state.iterations());
  const double frames = std::ceil(seconds * static_cast<double>(kRate) / 1024.0);
  state.counters["x_realtime"] = seconds * runs / wall;
  state.counters["ms_per_frame"] = 1e3 * wall / (runs * frames);
  state.counters["peak_rss_MB"] = static_cast<double>(peak) / 1024.0;
  std::error_code ignored;
  fs::remove(output, ignored);
}

void BM_Encode(benchmark::State& state) {
  const auto channels = static_cast<unsigned>(state.range(0));
  const bool flac = state.range(3) != 0;
  state.SetLabel(std::string(channels == 6 ? "5.1" : "2.0") + (flac ? " FLAC" : " WAVE"));
  encode_input(state, channels, static_cast<unsigned>(state.range(1)), flac, {"-b", std::to_string(state.range(2))});
}

// A stereo input through the matrix decoder into 5.1: the analysis passes
// (two with bass management) read the input again before the encoding pass.
// Arguments: {seconds, bass management, input (0 WAVE, 1 FLAC)}.
void BM_MatrixEncode(benchmark::State& state) {
  const bool bass = state.range(1) != 0, flac = state.range(2) != 0;
  state.SetLabel(std::string(bass ? "matrix+bass, 3 passes" : "matrix, 2 passes") + (flac ? " FLAC" : " WAVE"));
  std::vector<std::string> options = {"--matrix-decode"};
  if (bass) options.push_back("--bass-management");
  encode_input(state, 2, static_cast<unsigned>(state.range(0)), flac, options);
}

// 60 s of stereo through each stereo encoder: the legacy default, the
// production candidate and every experimental span24 mode. Arguments:
// {encoder (0 legacy, 1 production candidate, 2.. the modes in order),
// kbit/s}.
const std::vector<std::string> kSpan24Modes = {"absolute", "absolute-tmode", "absolute-jump", "candidate",
                                               "candidate-jump", "log", "mask"};

void BM_StereoEncoder(benchmark::State& state) {
  const auto encoder = static_cast<std::size_t>(state.range(0));
  std::vector<std::string> options = {"-b", std::to_string(state.range(1))};
  if (encoder == 1) options.push_back("--production-candidate");
  if (encoder >= 2) options.insert(options.end(), {"--experimental-span24", kSpan24Modes.at(encoder - 2)});
  state.SetLabel(encoder == 0 ? "legacy" : encoder == 1 ? "production-candidate" : kSpan24Modes.at(encoder - 2));
  encode_input(state, 2, 60, false, options);
}

BENCHMARK(BM_StereoEncoder)
    ->ArgsProduct({{0, 1, 2, 3, 4, 5, 6, 7, 8}, {768}})
    ->Args({1, 1411})
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// The long inputs show that memory does not grow with the length of the
// input; a FLAC input is decoded twice (checked, then encoded) and never
// held whole. The half-hour 5.1 files take a few minutes to make (1.5 GB of
// WAVE); filter them out with --benchmark_filter='BM_Encode/./(60|600)/'.
BENCHMARK(BM_Encode)
    ->Args({2, 60, 768, 0})
    ->Args({2, 60, 1411, 0})
    ->Args({6, 60, 768, 0})
    ->Args({6, 60, 1411, 0})
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode)
    ->Args({2, 600, 768, 0})
    ->Args({6, 1800, 768, 0})
    ->Args({6, 1800, 768, 1})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MatrixEncode)
    ->Args({60, 1, 0})
    ->Args({60, 0, 0})
    ->Args({60, 1, 1})
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MatrixEncode)->Args({600, 1, 0})->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
