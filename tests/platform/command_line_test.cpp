#include "platform/command_line.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/decoders.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;

// A name written through path_from_utf8 must come back from the file system
// as the same characters: on Windows a slip into the ANSI code page turns
// them into question marks or another name.
TEST(CommandLine, Utf8NamesReachTheFileSystemUnchanged) {
  const fs::path dir = test::fresh_test_dir("names");
  for (const std::string name : {"Café ñ.wav", "日本語 音楽.flac", "ёж 𝄞.dts"}) {
    SCOPED_TRACE(name);
    std::ofstream(path_from_utf8((dir / "").string() + name)) << "x";
    std::vector<std::string> found;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
      const std::u8string text = entry.path().filename().u8string();
      found.emplace_back(text.begin(), text.end());
    }
    EXPECT_NE(std::find(found.begin(), found.end(), name), found.end());
  }
}

#ifdef _WIN32
TEST(CommandLine, WideArgumentsBecomeUtf8) {
  wchar_t program[] = L"tavrin-dts.exe";
  wchar_t accented[] = L"Caf\u00e9.wav";
  wchar_t cjk[] = L"\u65e5\u672c.dts";
  wchar_t beyond_bmp[] = L"\U0001D11E";  // a surrogate pair in UTF-16
  wchar_t empty[] = L"";
  wchar_t* argv[] = {program, accented, cjk, beyond_bmp, empty};
  const std::vector<std::string> expected = {"tavrin-dts.exe", "Caf\xc3\xa9.wav", "\xe6\x97\xa5\xe6\x9c\xac.dts",
                                             "\xf0\x9d\x84\x9e", ""};
  EXPECT_EQ(utf8_arguments(5, argv), expected);
}
#endif

}  // namespace
}  // namespace tavrin
