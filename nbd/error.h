// Why a machine's folder cannot be used as it was asked: one sentence for the user.
#pragma once
#include <stdexcept>

namespace nbd {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace nbd
