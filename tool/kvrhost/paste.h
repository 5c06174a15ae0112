// Texts that a user pastes into a shell.
#pragma once
#include <string>
#include <string_view>

namespace tool {

// One word of a shell's command line that stands for exactly this text.
std::string ShellWord(std::string_view text);
// A path as a part of a URI: every byte but letters, digits and "-._~/" percent-encoded. Safe between single
// quotes.
std::string UriPath(std::string_view path);

}  // namespace tool
