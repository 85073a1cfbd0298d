// Speed and memory of the real program: a programme-like 24-bit stereo WAVE
// is written to a temporary file, tavrin-dts (the binary next to this one)
// encodes it in a child process, and the counters report how many times
// faster than real time the child ran and its peak resident memory.
//
//   x_realtime   audio seconds / wall seconds of the child
//   ms_per_frame wall milliseconds per 1024-sample frame
//   peak_rss_MB  the child's ru_maxrss
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
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kRate = 48000;
constexpr unsigned kChannels = 2;
constexpr unsigned kBytesPerSample = 3;

void put_le(std::vector<char>& out, std::uint32_t value, unsigned bytes) {
  for (unsigned i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFFu));
}

// A few tones whose levels drift slowly, a little noise, and the two
// channels differing, written a second at a time so that even the long file
// needs only a small buffer.
void write_programme_wav(const fs::path& path, unsigned seconds) {
  std::ofstream out(path, std::ios::binary);
  if (!out) throw std::runtime_error("cannot create " + path.string());
  const std::uint32_t data_bytes = seconds * kRate * kChannels * kBytesPerSample;
  std::vector<char> header;
  header.insert(header.end(), {'R', 'I', 'F', 'F'});
  put_le(header, 36 + data_bytes, 4);
  header.insert(header.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
  put_le(header, 16, 4);
  put_le(header, 1, 2);  // integer PCM
  put_le(header, kChannels, 2);
  put_le(header, kRate, 4);
  put_le(header, kRate * kChannels * kBytesPerSample, 4);
  put_le(header, kChannels * kBytesPerSample, 2);
  put_le(header, 8 * kBytesPerSample, 2);
  header.insert(header.end(), {'d', 'a', 't', 'a'});
  put_le(header, data_bytes, 4);
  out.write(header.data(), static_cast<std::streamsize>(header.size()));

  constexpr double kTwoPi = 6.283185307179586;
  const double tones[][3] = {{110.0, 0.20, 0.13}, {440.0, 0.12, 0.29}, {1250.0, 0.06, 0.07}, {5300.0, 0.02, 0.41}};
  std::uint64_t noise = 0x9E3779B97F4A7C15ull;
  std::vector<char> block;
  block.reserve(kRate * kChannels * kBytesPerSample);
  for (std::uint64_t n = 0; n < std::uint64_t{seconds} * kRate;) {
    block.clear();
    for (std::uint32_t i = 0; i < kRate; ++i, ++n) {
      const double t = static_cast<double>(n) / kRate;
      for (unsigned c = 0; c < kChannels; ++c) {
        double v = 0.0;
        for (const auto& tone : tones) {
          const double level = tone[1] * (0.6 + 0.4 * std::sin(kTwoPi * tone[2] * t + c));
          v += level * std::sin(kTwoPi * tone[0] * (1.0 + 0.002 * c) * t);
        }
        noise = noise * 6364136223846793005ull + 1442695040888963407ull;
        v += 0.01 * (static_cast<double>(noise >> 11) / 9007199254740992.0 - 0.5);
        const auto s = static_cast<std::int32_t>(std::lround(std::clamp(v, -1.0, 1.0) * 8388607.0));
        put_le(block, static_cast<std::uint32_t>(s), kBytesPerSample);
      }
    }
    out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

fs::path encoder_path() { return fs::read_symlink("/proc/self/exe").parent_path() / "tavrin-dts"; }

fs::path scratch_dir() {
  const fs::path dir = fs::temp_directory_path() / ("tavrin-bench-encode-" + std::to_string(getpid()));
  fs::create_directories(dir);
  return dir;
}

// Inputs are generated on first use and removed when the program ends.
struct Inputs {
  fs::path dir = scratch_dir();
  std::map<unsigned, fs::path> files;
  ~Inputs() {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }
  const fs::path& get(unsigned seconds) {
    auto it = files.find(seconds);
    if (it == files.end()) {
      const fs::path path = dir / ("programme-" + std::to_string(seconds) + "s.wav");
      write_programme_wav(path, seconds);
      it = files.emplace(seconds, path).first;
    }
    return it->second;
  }
};

Inputs& inputs() {
  static Inputs instance;
  return instance;
}

struct ChildRun {
  double wall_seconds = 0.0;
  long peak_rss_kb = 0;
};

ChildRun run_encoder(const fs::path& input, const fs::path& output, const std::string& kbps) {
  const std::string program = encoder_path().string();
  const std::string in = input.string(), out = output.string();
  std::vector<char*> argv = {const_cast<char*>(program.c_str()), const_cast<char*>(in.c_str()),
                             const_cast<char*>(out.c_str()),     const_cast<char*>("-b"),
                             const_cast<char*>(kbps.c_str()),    const_cast<char*>("-q"),
                             nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error("cannot start " + program);
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid) throw std::runtime_error("wait4 failed");
  const auto stop = std::chrono::steady_clock::now();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(program + " failed on " + in);
  return {std::chrono::duration<double>(stop - start).count(), usage.ru_maxrss};
}

void BM_Encode(benchmark::State& state) {
  const auto seconds = static_cast<unsigned>(state.range(0));
  const std::string kbps = std::to_string(state.range(1));
  fs::path input;
  try {
    input = inputs().get(seconds);
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  const fs::path output = inputs().dir / "out.dts";
  double wall = 0.0;
  long peak = 0;
  for (auto _ : state) {
    ChildRun run;
    try {
      run = run_encoder(input, output, kbps);
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

// {seconds, kbit/s}. The ten-minute input shows that memory does not grow
// with the length of the input.
BENCHMARK(BM_Encode)->Args({60, 768})->Args({60, 1411})->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Encode)->Args({600, 768})->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
