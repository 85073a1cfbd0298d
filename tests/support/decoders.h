#pragma once
// Test helpers around the black-box decoders (ffmpeg, ffprobe, libdca's
// dcadec) and the plumbing they need: running a program with its output
// captured, fresh temporary folders, writing files.
//
// Nothing here knows the format: these helpers only run the decoders and
// hand back what they printed, decoded or reported, so that tests can judge
// a stream by what real decoders make of it.
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tavrin::test {

// ---- Running programs -------------------------------------------------------

struct CommandResult {
  int exit_status = -1;  // the program's exit code; 128 + signal when killed; -1 if it could not start
  std::string out;       // everything written to standard output
  std::string err;       // everything written to standard error
};

// Runs argv[0] (looked up on PATH) with the given arguments, no shell, empty
// standard input, and waits for it. Both output streams are drained
// concurrently, so large outputs cannot dead-lock.
CommandResult run_command(const std::vector<std::string>& argv);

// True when `name` is an executable found on PATH.
bool program_available(std::string_view name);

// Sets an environment variable of this process; nullptr removes it.
void set_environment(const char* name, const char* value);

// ---- Files and folders ------------------------------------------------------

// Creates and returns a new, empty, uniquely named folder `<base>/<prefix>-XXXXXX`
// (base is created when missing). The folder is left in place for post-mortems.
std::filesystem::path make_temp_dir(const std::filesystem::path& base, std::string_view prefix);

#ifdef TAVRIN_TEST_TMP
// A fresh folder under the build's test scratch area (every test target gets
// TAVRIN_TEST_TMP as a compile definition; the support library does not, so
// this wrapper lives in the header).
inline std::filesystem::path fresh_test_dir(std::string_view prefix) { return make_temp_dir(TAVRIN_TEST_TMP, prefix); }
#endif
#ifdef TAVRIN_BINARY
// The encoder under test, run with these arguments.
inline CommandResult run_tavrin(std::vector<std::string> args) {
  args.insert(args.begin(), TAVRIN_BINARY);
  return run_command(args);
}
// Runs a shell line in which $T is the encoder.
inline CommandResult run_shell(const std::string& line) {
  std::string script = "T='" TAVRIN_BINARY "'; ";
  script += line;
  return run_command({"sh", "-c", script});
}
#endif

// A path in single quotes, for a shell line.
std::string shell_quoted(const std::filesystem::path& path);

// Writes bytes to path, replacing it; throws std::runtime_error on failure.
void write_bytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes);
// A whole file; throws std::runtime_error when it cannot be opened.
std::vector<std::uint8_t> read_bytes(const std::filesystem::path& path);

// ---- ffprobe ----------------------------------------------------------------

struct StreamInfo {
  bool ok = false;             // ffprobe ran, exited 0 and found an audio stream
  std::string codec_name;      // e.g. "dts"
  int sample_rate = 0;         // Hz
  int channels = 0;            // including an LFE channel
  std::string channel_layout;  // ffmpeg's name, e.g. "stereo", "5.1(side)"
  std::int64_t bit_rate = 0;   // nominal bit rate in bit/s (0 when not reported)
  CommandResult run;           // the raw ffprobe run, for diagnostics
};

// First audio stream of a file as ffprobe sees it.
StreamInfo probe_stream(const std::filesystem::path& file);

// ---- ffmpeg -----------------------------------------------------------------

struct DecodedAudio {
  CommandResult run;                         // ffmpeg's run; `run.out` is cleared after splitting
  std::vector<std::vector<float>> channels;  // one vector per channel, in ffmpeg's channel order
                                             // (5.1: L R C LFE SL SR)
  bool clean() const { return run.exit_status == 0 && run.err.empty(); }
};

// Decodes with `ffmpeg -v error -i <file> -f f32le -` and de-interleaves the
// samples into `channels` channels. A decode error leaves the run's status
// and stderr for the caller to judge.
DecodedAudio decode_with_ffmpeg(const std::filesystem::path& file, int channels);

// ---- libdca -----------------------------------------------------------------

struct DcadecResult {
  CommandResult run;        // `run.out` holds the decoder's output (e.g. WAV bytes)
  std::string errors;       // stderr without the banner and the closing summary
  long frames_decoded = -1; // from the closing "N frames decoded" line; -1 if absent
  bool clean() const { return run.exit_status == 0 && errors.empty(); }
};

// Runs `dcadec -o <mode> <file>`; mode "wav" for stereo, "wav6" for 5.1,
// "float" for raw planar float32, "null" to decode without output.
DcadecResult run_dcadec(const std::filesystem::path& file, std::string_view mode = "wav");

// One channel of a stereo `dcadec -o float` output (raw float32 in planar
// blocks of 256 samples, the channels' blocks in turn).
std::vector<float> dcadec_float_channel(const std::string& planar, std::size_t channel);

}  // namespace tavrin::test
