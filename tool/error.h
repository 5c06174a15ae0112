// Why the tool cannot do what it was asked: one sentence for the user. It ends the program with exit code 2.
#pragma once
#include <stdexcept>

namespace tool {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace tool
