#pragma once
// What an input path (or standard input) is, and whether two names reach the
// same file. The encoder asks before it creates its output, so that a
// mistyped command line can never truncate the audio it was meant to read.
#include <filesystem>
#include <string_view>

namespace tavrin {

enum class FileKind { missing, regular, directory, pipe, socket, character_device, block_device, other };

// Follows symbolic links; `missing` when nothing can be found there.
FileKind file_kind(const std::filesystem::path& path);
FileKind standard_input_kind();

// Words for a message: "a directory", "a character device", ...
std::string_view describe_file_kind(FileKind kind);

// True when both names reach one file: the same path, another spelling of
// it, a symbolic link or a hard link. False when `output` does not exist.
bool same_file(const std::filesystem::path& input, const std::filesystem::path& output);
bool standard_input_is(const std::filesystem::path& output);

// Standard input carries bytes, not text (matters on Windows only).
void use_binary_standard_input();

}  // namespace tavrin
