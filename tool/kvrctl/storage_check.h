// Whether a fixed volume's storage is whole: what protecting and merging rest on.
#pragma once
#include <string>
#include "tool/kvrctl/commands.h"

namespace ctl {

// Why it is not, as a sentence without the volume's name in front and without a full stop; empty when it is.
// `keeps`: it is to keep changes over a boot. Throws Failure.
std::string StorageFault(const Context& context, const FixedVolume& volume, bool keeps);

}  // namespace ctl
