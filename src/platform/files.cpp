#include "platform/files.h"

#include <system_error>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include "platform/windows_api.h"

#include <cstdio>
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace tavrin {

namespace fs = std::filesystem;

FileKind file_kind(const fs::path& path) {
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  switch (status.type()) {
    case fs::file_type::regular:
      return FileKind::regular;
    case fs::file_type::directory:
      return FileKind::directory;
    case fs::file_type::fifo:
      return FileKind::pipe;
    case fs::file_type::socket:
      return FileKind::socket;
    case fs::file_type::character:
      return FileKind::character_device;
    case fs::file_type::block:
      return FileKind::block_device;
    case fs::file_type::not_found:
    case fs::file_type::none:
      return FileKind::missing;
    default:
      return FileKind::other;
  }
}

std::string_view describe_file_kind(FileKind kind) {
  switch (kind) {
    case FileKind::missing:
      return "missing";
    case FileKind::regular:
      return "a regular file";
    case FileKind::directory:
      return "a directory";
    case FileKind::pipe:
      return "a pipe";
    case FileKind::socket:
      return "a socket";
    case FileKind::character_device:
      return "a character device";
    case FileKind::block_device:
      return "a block device";
    case FileKind::other:
      break;
  }
  return "not a file";
}

bool same_file(const fs::path& input, const fs::path& output) {
  std::error_code ec;
  // equivalent() compares device and file number (the file index on
  // Windows), so links and other spellings of a name are caught.
  return fs::exists(output, ec) && fs::equivalent(input, output, ec) && !ec;
}

#ifdef _WIN32

FileKind standard_input_kind() {
  const HANDLE handle = GetStdHandle(STD_INPUT_HANDLE);
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return FileKind::missing;
  switch (GetFileType(handle)) {
    case FILE_TYPE_DISK:
      return FileKind::regular;
    case FILE_TYPE_PIPE:
      return FileKind::pipe;
    case FILE_TYPE_CHAR:
      return FileKind::character_device;
    default:
      return FileKind::other;
  }
}

bool standard_input_is(const fs::path& output) {
  const HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
  BY_HANDLE_FILE_INFORMATION a{};
  if (in == nullptr || in == INVALID_HANDLE_VALUE || !GetFileInformationByHandle(in, &a)) return false;
  const HANDLE out = CreateFileW(output.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (out == INVALID_HANDLE_VALUE) return false;
  BY_HANDLE_FILE_INFORMATION b{};
  const bool known = GetFileInformationByHandle(out, &b) != 0;
  CloseHandle(out);
  return known && a.dwVolumeSerialNumber == b.dwVolumeSerialNumber && a.nFileIndexHigh == b.nFileIndexHigh &&
         a.nFileIndexLow == b.nFileIndexLow;
}

void use_binary_standard_input() { _setmode(_fileno(stdin), _O_BINARY); }

#else

FileKind standard_input_kind() {
  struct stat s {};
  if (fstat(STDIN_FILENO, &s) != 0) return FileKind::missing;
  if (S_ISREG(s.st_mode)) return FileKind::regular;
  if (S_ISDIR(s.st_mode)) return FileKind::directory;
  if (S_ISFIFO(s.st_mode)) return FileKind::pipe;
  if (S_ISSOCK(s.st_mode)) return FileKind::socket;
  if (S_ISCHR(s.st_mode)) return FileKind::character_device;
  if (S_ISBLK(s.st_mode)) return FileKind::block_device;
  return FileKind::other;
}

bool standard_input_is(const fs::path& output) {
  struct stat in {};
  struct stat out {};
  return fstat(STDIN_FILENO, &in) == 0 && stat(output.c_str(), &out) == 0 && in.st_dev == out.st_dev &&
         in.st_ino == out.st_ino;
}

void use_binary_standard_input() {}

#endif

}  // namespace tavrin
