// Option parsing: the fuzzer's bytes split at NUL into command-line words.
// Every outcome is a parsed line or a message; nothing else may escape.
#include <stdexcept>
#include <string>
#include <vector>

#include "app/options.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> words = {"in.wav", "out.dts"};
  std::string word;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      words.push_back(word);
      word.clear();
    } else {
      word.push_back(static_cast<char>(data[i]));
    }
  }
  words.push_back(word);
  std::vector<const char*> argv;
  for (const auto& w : words) argv.push_back(w.c_str());
  try {
    tavrin::parse_options(static_cast<int>(argv.size()), argv.data());
  } catch (const std::invalid_argument&) {
  } catch (const std::out_of_range&) {
  }
  return 0;
}
