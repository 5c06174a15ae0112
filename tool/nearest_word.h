// What a user meant by a word that a command line does not know.
#pragma once
#include <string>

namespace CLI {
class App;
}

namespace ctl {

// The command or option that the misspelt word was most likely meant to be, among those that the commands
// chosen so far have; empty when none is near.
std::string NearestWord(const std::string& word, const CLI::App& app);

}  // namespace ctl
