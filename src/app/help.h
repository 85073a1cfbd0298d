#pragma once
#include <ostream>
#include <string>

namespace tavrin {

inline constexpr const char* kBanner = "Tavrin-DTS 1.0.1.0 - Tavrin DTS Core Audio Encoder";
inline constexpr const char* kVersionLine = "Tavrin-DTS 1.0.1.0";

std::string help_text(bool developer);
void print_help(std::ostream& out, bool developer);

}  // namespace tavrin
