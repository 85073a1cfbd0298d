#include "platform/dynamic_library.h"

#include <stdexcept>
#include <string>
#include <system_error>

#include "platform/names.h"

#ifdef _WIN32
#include "platform/windows_api.h"
#else
#include <dlfcn.h>
#endif

namespace tavrin {

#ifdef _WIN32

std::filesystem::path executable_path() {
  // The longest path Windows can hand back; a result that fills the buffer
  // has been cut short.
  constexpr DWORD kCapacity = 32768;
  std::wstring buffer(kCapacity, L'\0');
  const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), kCapacity);
  if (length == 0 || length >= kCapacity) throw std::runtime_error("cannot locate " + std::string(kProgramFile));
  buffer.resize(length);
  return std::filesystem::path(buffer);
}

DynamicLibrary open_library(const std::filesystem::path& file) {
  return DynamicLibrary(static_cast<void*>(LoadLibraryW(file.c_str())));
}

LibraryFunction find_function(const DynamicLibrary& library, const char* name) {
  return reinterpret_cast<LibraryFunction>(GetProcAddress(static_cast<HMODULE>(library.native), name));
}

DynamicLibrary::~DynamicLibrary() {
  if (native != nullptr) FreeLibrary(static_cast<HMODULE>(native));
}

#else

std::filesystem::path executable_path() {
  std::error_code error;
  std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error || path.empty()) throw std::runtime_error("cannot locate " + std::string(kProgramFile));
  return path;
}

DynamicLibrary open_library(const std::filesystem::path& file) {
  return DynamicLibrary(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL));
}

LibraryFunction find_function(const DynamicLibrary& library, const char* name) {
  return reinterpret_cast<LibraryFunction>(dlsym(library.native, name));
}

DynamicLibrary::~DynamicLibrary() {
  if (native != nullptr) dlclose(native);
}

#endif

}  // namespace tavrin
