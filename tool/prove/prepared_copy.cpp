#include "tool/prove/prepared_copy.h"
#include "tool/inject/driver_files.h"
#include "tool/inject/inject.h"
#include "tool/inject/test_sign.h"

namespace tool {
PreparedCopy PrepareCopy(const ProveOptions& options, const std::string& copy) {
    InjectOptions inject;
    inject.image = options.image;
    inject.output = copy;
    inject.root = options.root;
    inject.driver = options.driver;
    inject.tool = options.tool;
    inject.proof = FindWindowsFile(options.proof, "kvrprove.exe", "--proof");
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
