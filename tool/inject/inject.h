// `kvrhost inject`: Kvr into a Windows that lies on a disk image and does not run, and out of it again.
#pragma once
#include <string>
#include <vector>
#include "tool/inject/registration.h"

namespace tool {

struct InjectOptions {
    std::string image;
    std::string output;  // the copy that is edited; empty: the image itself is
    std::string root = "Windows";
    std::string driver, tool;   // empty: those beside this program or in its build folder
    std::string configuration;  // a text file; empty: nothing is protected
    std::string volumeName;     // what this Windows calls its volume; empty: what it noted itself
    std::string certificate;    // with testSign; empty: one is made beside the image
    std::vector<std::string> prepare;
    bool testSign = false;
    bool allowUnsigned = false;
    std::string proof;  // kvrprove.exe, for a copy that is started to prove the driver and then deleted
    bool remove = false;
    bool dropStorage = false;  // with remove
};

// What was done. The image is changed as a whole or not at all; a copy that fails is deleted. Throws Error with
// one line that names the cause.
Report Inject(const InjectOptions& options);

}  // namespace tool
