// The one version of everything that is built here: the line of the file VERSION.
#pragma once

namespace ctl {

// "1.0.0"
const char* Version();

}  // namespace ctl
