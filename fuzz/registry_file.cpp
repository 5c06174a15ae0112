// The registry's text file, which a person may edit and a host's disk may damage: any bytes. What can be read
// is written so that it is read back the same.
#include "fuzz/support.h"
#include "machine/boot/registry_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    machine::RegistryFile registry;
    std::string why;
    if (!registry.LoadText({reinterpret_cast<const char*>(data), size}, why)) {
        fuzz::Require(why.starts_with("line "), "the line is named");
        return 0;
    }
    machine::RegistryFile again;
    const std::string text = registry.Text();
    fuzz::Require(again.LoadText(text, why), "what is written can be read: " + why);
    fuzz::Require(again.Text() == text, "what is read back is the same");
    return 0;
}
