#include "app/entry.h"

#ifdef _WIN32
#include <string>
#include <vector>

#include "platform/command_line.h"

// The wide entry point: a narrow argv on Windows has already lost every
// character outside the ANSI code page.
int wmain(int argc, wchar_t** argv) {
  std::vector<std::string> arguments;
  try {
    arguments = tavrin::utf8_arguments(argc, argv);
  } catch (...) {
    return 2;
  }
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const tavrin::Utf8Console console;
  return tavrin::run_program(argc, pointers.data());
}
#else
int main(int argc, char** argv) { return tavrin::run_program(argc, argv); }
#endif
