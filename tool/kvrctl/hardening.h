// The driver's stricter rules: whether they hold now, and from the next boot on.
#pragma once
#include <optional>
#include <string>
#include <nlohmann/json_fwd.hpp>
#include "tool/kvrctl/world.h"

namespace ctl {

struct Hardening {
    std::optional<bool> now;  // unknown where nobody remembers what this boot read
    bool nextBoot = false;    // what the registry says
};

// Throws Failure.
Hardening QueryHardening(World& world);
// A sentence, without a line end.
std::string HardeningText(const Hardening& hardening);
nlohmann::ordered_json HardeningJson(const Hardening& hardening);

}  // namespace ctl
