#include "client/version.h"

namespace ctl {

const char* Version() {
    return KVR_VERSION;
}

}  // namespace ctl
