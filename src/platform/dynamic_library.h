#pragma once
// The few operating-system calls behind loading an optional library at run
// time: where the program itself lives, opening a library file, finding an
// entry point in it and releasing it. Everything else about which library to
// load and what to do with it belongs to its user.
#include <filesystem>

namespace tavrin {

// Full path of the running program; throws "cannot locate <program file>".
std::filesystem::path executable_path();

// An opened library, released when the record goes out of scope; empty when
// nothing was loaded. Move-only, so a library is released exactly once.
struct DynamicLibrary {
  void* native = nullptr;

  DynamicLibrary() = default;
  explicit DynamicLibrary(void* handle) : native(handle) {}
  DynamicLibrary(DynamicLibrary&& other) noexcept : native(other.native) { other.native = nullptr; }
  DynamicLibrary(const DynamicLibrary&) = delete;
  DynamicLibrary& operator=(const DynamicLibrary&) = delete;
  DynamicLibrary& operator=(DynamicLibrary&&) = delete;
  ~DynamicLibrary();

  explicit operator bool() const { return native != nullptr; }
};

// An entry point's address before its user casts it to the real type.
using LibraryFunction = void (*)();

// Loads `file` with every symbol bound at once and none made visible to other
// libraries. On Linux a bare name (no folder) goes through the system
// loader's search; on Windows callers pass full paths only, so the search
// path never supplies a library. Empty when it cannot be loaded.
DynamicLibrary open_library(const std::filesystem::path& file);

// nullptr when the library does not export `name`.
LibraryFunction find_function(const DynamicLibrary& library, const char* name);

}  // namespace tavrin
