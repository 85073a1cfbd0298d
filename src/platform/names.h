#pragma once
// File names that appear in the program's texts. They differ by platform;
// every text that names them is composed from these constants so that the
// Windows wording stays exact.
#include <string_view>

namespace tavrin {

#ifdef _WIN32
inline constexpr std::string_view kProgramFile = "tavrin-dts.exe";
inline constexpr std::string_view kFlacLibraryFile = "libFLAC.dll";
// Where the FLAC library is looked for, as the help text and the error say it.
inline constexpr std::string_view kFlacLibraryPlace = "libFLAC.dll beside tavrin-dts.exe";
#else
inline constexpr std::string_view kProgramFile = "tavrin-dts";
inline constexpr std::string_view kFlacLibraryFile = "libFLAC.so";
inline constexpr std::string_view kFlacLibraryPlace = "libFLAC.so beside tavrin-dts or on the library path";
#endif

}  // namespace tavrin
