#include "tool/prove/prepared_copy.h"
#include <filesystem>
#include "tool/error.h"
#include "tool/inject/driver_files.h"
#include "tool/inject/inject.h"
#include "tool/inject/test_sign.h"

namespace tool {
namespace {

std::string ProofProgram(const std::string& given) {
    if (!given.empty()) return given;
    std::error_code ignored;
    const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    for (const std::filesystem::path& folder : {here, here.parent_path().parent_path() / "windows"}) {
        if (std::filesystem::exists(folder / "kvrprove.exe", ignored)) return folder / "kvrprove.exe";
    }
    throw Error("there is no kvrprove.exe beside this program; build it or say --proof FILE");
}

}  // namespace

PreparedCopy PrepareCopy(const ProveOptions& options, const std::string& copy) {
    InjectOptions inject;
    inject.image = options.image;
    inject.output = copy;
    inject.root = options.root;
    inject.driver = options.driver;
    inject.tool = options.tool;
    inject.proof = ProofProgram(options.proof);
    inject.allowUnsigned = options.allowUnsigned;
    inject.testSign = !options.allowUnsigned && !IsSigned(FindDriverFiles(options.driver, options.tool).driver);
    PreparedCopy prepared;
    prepared.did = Inject(inject);
    ImageEdit image(copy);
    Installation windows(image, options.root);
    prepared.offset = windows.Range().offset;
    prepared.length = windows.Range().length;
    prepared.efi = windows.Boot().efi;
    return prepared;
}

}  // namespace tool
