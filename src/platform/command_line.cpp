#include "platform/command_line.h"

#ifdef _WIN32
#include <stdexcept>

#include "platform/windows_api.h"
#endif

namespace tavrin {

#ifdef _WIN32

std::filesystem::path path_from_utf8(std::string_view text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string utf8_from_wide(std::wstring_view text) {
  if (text.empty()) return {};
  const int length = static_cast<int>(text.size());
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  if (bytes <= 0) throw std::runtime_error("command line is not valid text");
  std::string out(static_cast<std::size_t>(bytes), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, out.data(), bytes, nullptr, nullptr);
  return out;
}

std::vector<std::string> utf8_arguments(int argc, wchar_t** argv) {
  std::vector<std::string> arguments;
  arguments.reserve(static_cast<std::size_t>(argc));
  for (int i = 0; i < argc; ++i) arguments.push_back(utf8_from_wide(argv[i]));
  return arguments;
}

Utf8Console::Utf8Console() : saved_output(GetConsoleOutputCP()) {
  if (saved_output != 0) SetConsoleOutputCP(CP_UTF8);
}

Utf8Console::~Utf8Console() {
  if (saved_output != 0) SetConsoleOutputCP(saved_output);
}

#else

std::filesystem::path path_from_utf8(std::string_view text) { return std::filesystem::path(text); }

#endif

}  // namespace tavrin
