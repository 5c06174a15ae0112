// The boot store is a hive: an object for each thing that can be started, its elements by the number of what
// they say.
#include <functional>
#include "tool/error.h"
#include "tool/inject/fat_file.h"
#include "tool/inject/test_sign.h"

namespace tool {
namespace {

constexpr char kEfiStore[] = "EFI\\Microsoft\\Boot\\BCD";
constexpr char kBiosStore[] = "Boot\\BCD";
constexpr std::uint32_t kWindowsLoader = 0x10200003;  // an object's type: it starts a Windows
constexpr char kAllowTestSigned[] = "16000049";       // the element that testsigning is, a byte
constexpr char kElementValue[] = "Element";
constexpr char kTestModeNote[] = "InjectedTestMode";  // a list of objects

using StoreEdit = std::function<void(Hive& store)>;

// Elements by which a loader does not start the recovery environment in place of Windows after starts that were
// not finished, with their values: recoveryenabled no, bootstatuspolicy IgnoreAllFailures.
struct Element {
    const char* name;
    std::vector<std::uint8_t> value;
};
const Element kIgnoreFailures[] = {{"16000009", {0}}, {"250000e0", {1, 0, 0, 0, 0, 0, 0, 0}}};

std::string ElementKey(const std::string& object, const char* element) {
    return "Objects\\" + object + "\\Elements\\" + element;
}

std::vector<std::string> Loaders(const Hive& store) {
    std::vector<std::string> loaders = store.Children("Objects");
    std::erase_if(loaders, [&](const std::string& object) {
        return NumberOf(store.Get("Objects\\" + object + "\\Description", "Type")) != kWindowsLoader;
    });
    if (loaders.empty()) throw Error("it starts no Windows");
    return loaders;
}

// Gives the objects for which it was off.
std::vector<std::string> AllowTestSigned(Hive& store) {
    std::vector<std::string> changed;
    for (const std::string& object : Loaders(store)) {
        const std::string key = ElementKey(object, kAllowTestSigned);
        if (store.Get(key, kElementValue) == Binary({1})) continue;
        store.Set(key, kElementValue, Binary({1}));
        changed.push_back(object);
    }
    return changed;
}

// `File` reads and writes the store's file, whatever the file system.
template <class File>
void EditIn(const File& file, const StoreEdit& edit) {
    Hive store("BCD", file.Read());
    edit(store);
    if (store.IsChanged()) file.Write(store.Save());
}

struct NtfsFile {
    NtfsTree& volume;
    std::vector<std::uint8_t> Read() const { return volume.Read(kBiosStore); }
    void Write(const std::vector<std::uint8_t>& bytes) const { volume.Write(kBiosStore, bytes); }
};

void EditOnNtfs(ImageEdit& image, Installation& windows, const DiskRange& range, const StoreEdit& edit) {
    if (range.offset == windows.Range().offset) return EditIn(NtfsFile{windows.Volume()}, edit);
    NtfsTree volume(image, range.offset, range.length);
    EditIn(NtfsFile{volume}, edit);
    volume.Close();
}

bool IsNtfs(const ImageEdit& image, const DiskRange& range) {
    char name[9] = {};
    image.Read(range.offset + 3, name, 8);
    return std::string(name) == "NTFS    ";
}

// Tells whether the machine starts by EFI.
bool EditStore(ImageEdit& image, Installation& windows, const StoreEdit& edit) {
    const BootVolume boot = windows.Boot();
    try {
        if (!boot.efi && IsNtfs(image, boot.range))
            EditOnNtfs(image, windows, boot.range, edit);
        else
            EditIn(FatFile(image, boot.range, boot.efi ? kEfiStore : kBiosStore), edit);
    } catch (const Error& error) {
        throw Error(std::string("the boot store: ") + error.what());
    }
    return boot.efi;
}

}  // namespace

void SetTestMode(ImageEdit& image, Installation& windows, Report& report) {
    std::vector<std::string> changed;
    const bool efi = EditStore(image, windows, [&](Hive& store) { changed = AllowTestSigned(store); });
    AddToNote(windows, kTestModeNote, changed);
    report.push_back("testsigning is on in the boot store");
    if (efi) report.push_back("Secure Boot must be off: with it on, Windows does not start in test mode");
}

void ClearTestMode(ImageEdit& image, Installation& windows, Report& report) {
    const std::vector<std::string> objects = Noted(windows, kTestModeNote);
    if (objects.empty()) return;
    EditStore(image, windows, [&](Hive& store) {
        for (const std::string& object : objects) store.DeleteKey(ElementKey(object, kAllowTestSigned));
    });
    report.push_back("testsigning is off in the boot store");
}

void IgnoreFailedStarts(ImageEdit& image, Installation& windows, Report& report) {
    EditStore(image, windows, [](Hive& store) {
        for (const std::string& object : Loaders(store)) {
            for (const Element& element : kIgnoreFailures)
                store.Set(ElementKey(object, element.name), kElementValue, Binary(element.value));
        }
    });
    report.push_back("starts that are not finished do not begin a recovery");
}

}  // namespace tool
