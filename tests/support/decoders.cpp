#include "support/decoders.h"

#ifdef _WIN32
#include <process.h>
#include <stdlib.h>
#else
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

namespace tavrin::test {

#ifdef _WIN32

// A Windows build runs its tests under an emulator next to Linux tools it
// cannot start; the tests that need one skip, and the program itself is
// checked from outside.
CommandResult run_command(const std::vector<std::string>&) { return {}; }

bool program_available(std::string_view) { return false; }

void set_environment(const char* name, const char* value) { _putenv_s(name, value != nullptr ? value : ""); }

static int process_id() { return _getpid(); }

#else

namespace {

void close_fd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

CommandResult run_command(const std::vector<std::string>& argv) {
  CommandResult result;
  if (argv.empty()) return result;
  int out_pipe[2] = {-1, -1};
  int err_pipe[2] = {-1, -1};
  if (::pipe(out_pipe) != 0) return result;
  if (::pipe(err_pipe) != 0) {
    close_fd(out_pipe[0]);
    close_fd(out_pipe[1]);
    return result;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
  posix_spawn_file_actions_addclose(&actions, out_pipe[0]);
  posix_spawn_file_actions_addclose(&actions, err_pipe[0]);

  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close_fd(out_pipe[1]);
  close_fd(err_pipe[1]);
  if (spawned != 0) {
    close_fd(out_pipe[0]);
    close_fd(err_pipe[0]);
    result.err = std::string("cannot start ") + argv[0] + ": " + std::strerror(spawned);
    return result;
  }

  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  char buffer[65536];
  int open_count = 2;
  while (open_count > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  for (pollfd& p : fds)
    if (p.fd >= 0) ::close(p.fd);

  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exit_status = WEXITSTATUS(status);
  else if (WIFSIGNALED(status)) result.exit_status = 128 + WTERMSIG(status);
  return result;
}

void set_environment(const char* name, const char* value) {
  value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
}

static int process_id() { return static_cast<int>(::getpid()); }

bool program_available(std::string_view name) {
  const char* path = std::getenv("PATH");
  if (path == nullptr) return false;
  std::stringstream dirs(path);
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    const std::filesystem::path candidate = std::filesystem::path(dir) / std::string(name);
    if (::access(candidate.c_str(), X_OK) == 0) return true;
  }
  return false;
}

#endif

std::filesystem::path make_temp_dir(const std::filesystem::path& base, std::string_view prefix) {
  std::filesystem::create_directories(base);
  std::random_device seed;
  std::mt19937_64 rng((static_cast<std::uint64_t>(seed()) << 32) ^ static_cast<std::uint64_t>(process_id()));
  static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name(prefix);
    name += '-';
    for (int i = 0; i < 8; ++i) name += kChars[rng() % (sizeof kChars - 1)];
    const std::filesystem::path dir = base / name;
    // create_directory reports false when the folder already exists, which
    // makes the name unique even against a parallel test run.
    if (std::filesystem::create_directory(dir)) return dir;
  }
  throw std::runtime_error("cannot create a temporary folder under " + base.string());
}

std::string shell_quoted(const std::filesystem::path& path) {
  std::string q = "'";  // built in steps: GCC 12 misreads "'" + s + "'" (-Wrestrict)
  q += path.string();
  q += '\'';
  return q;
}

void write_bytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  f.close();
  if (!f) throw std::runtime_error("cannot write " + path.string());
}

std::vector<std::uint8_t> read_bytes(const std::filesystem::path& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

StreamInfo probe_stream(const std::filesystem::path& file) {
  StreamInfo info;
  // The raw DTS format is named: ffmpeg's content probe is not sure of a
  // stream only a few frames long.
  info.run = run_command({"ffprobe", "-v", "error", "-f", "dts", "-select_streams", "a:0", "-show_entries",
                          "stream=codec_name,sample_rate,channels,channel_layout,bit_rate", "-of",
                          "default=noprint_wrappers=1", file.string()});
  if (info.run.exit_status != 0) return info;
  std::stringstream lines(info.run.out);
  std::string line;
  bool any = false;
  while (std::getline(lines, line)) {
    const auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = line.substr(0, eq);
    const std::string value = line.substr(eq + 1);
    const bool numeric = !value.empty() && value != "N/A";
    any = true;
    if (key == "codec_name") info.codec_name = value;
    else if (key == "sample_rate" && numeric) info.sample_rate = std::stoi(value);
    else if (key == "channels" && numeric) info.channels = std::stoi(value);
    else if (key == "channel_layout") info.channel_layout = value;
    else if (key == "bit_rate" && numeric) info.bit_rate = std::stoll(value);
  }
  info.ok = any;
  return info;
}

DecodedAudio decode_with_ffmpeg(const std::filesystem::path& file, int channels) {
  DecodedAudio decoded;
  decoded.run =
      run_command({"ffmpeg", "-nostdin", "-v", "error", "-f", "dts", "-i", file.string(), "-f", "f32le", "-"});
  const std::string& raw = decoded.run.out;
  const std::size_t frames = raw.size() / (sizeof(float) * static_cast<std::size_t>(channels));
  decoded.channels.assign(static_cast<std::size_t>(channels), std::vector<float>(frames));
  for (std::size_t i = 0; i < frames; ++i)
    for (std::size_t c = 0; c < decoded.channels.size(); ++c) {
      float v;
      std::memcpy(&v, raw.data() + (i * decoded.channels.size() + c) * sizeof(float), sizeof v);
      decoded.channels[c][i] = v;
    }
  decoded.run.out.clear();
  return decoded;
}

DcadecResult run_dcadec(const std::filesystem::path& file, std::string_view mode) {
  DcadecResult result;
  result.run = run_command({"dcadec", "-o", std::string(mode), file.string()});
  // dcadec always greets on stderr and closes with a frame count; anything
  // else it prints there is a complaint.
  std::stringstream lines(result.run.err);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("libdca-", 0) == 0 || line.find("based on the a52dec code") != std::string::npos) continue;
    if (line.empty()) continue;
    const auto pos = line.find(" frames decoded in ");
    if (pos != std::string::npos && line.find_first_not_of("0123456789") == pos) {
      result.frames_decoded = std::stol(line.substr(0, pos));
      continue;
    }
    result.errors += line;
    result.errors += '\n';
  }
  return result;
}

std::vector<float> dcadec_float_channel(const std::string& planar, std::size_t channel) {
  std::vector<float> out;
  const std::size_t block = 256 * sizeof(float);
  for (std::size_t at = channel * block; at + block <= planar.size(); at += 2 * block) {
    for (std::size_t i = 0; i < 256; ++i) {
      float v;
      std::memcpy(&v, planar.data() + at + i * sizeof(float), sizeof v);
      out.push_back(v);
    }
  }
  return out;
}

}  // namespace tavrin::test
