#pragma once
// The command line and file names as the program sees them: UTF-8 text
// everywhere inside, whatever the operating system hands over. On Windows the
// arguments arrive as UTF-16 and a narrow path would pass through the ANSI
// code page, which cannot spell most names; on Linux bytes pass unchanged.
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tavrin {

// The path named by UTF-8 text.
std::filesystem::path path_from_utf8(std::string_view text);

#ifdef _WIN32
std::string utf8_from_wide(std::wstring_view text);
std::vector<std::string> utf8_arguments(int argc, wchar_t** argv);

// The console shows standard output and error as UTF-8 while the program
// runs, so a name with accents reads right in a message; the console's own
// code page is put back on the way out.
struct Utf8Console {
  unsigned saved_output = 0;
  Utf8Console();
  Utf8Console(const Utf8Console&) = delete;
  Utf8Console& operator=(const Utf8Console&) = delete;
  ~Utf8Console();
};
#endif

}  // namespace tavrin
