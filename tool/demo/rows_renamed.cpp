#include <random>
#include "tool/demo/stage.h"

namespace tool {
namespace {

// The names under which a user tries to reach the volume itself: those of the system's own files.
constexpr const char16_t* kNames[] = {
    u"\\bootstat.dat",     u"\\tries\\bootstat.dat", u"\\tries\\system32\\drivers\\kvr.cfg",
    u"\\tries\\Boot\\BCD", u"\\hiberfil.sys",        u"\\pagefile.sys"};

// A file with content of its own, which a write can overwrite where it lies.
std::u16string PickFile(const FileTable& files) {
    for (const auto& [path, file] : files)
        if (file.plain && !file.directory && file.size >= 64 * 1024) return path;
    throw StepFailed("the volume has no file to try it with");
}

// Gives the file that name, overwrites it in place and gives it its own name back.
void OverwriteAs(machine::GuestFiles files, const std::u16string& path, const std::u16string& name,
                 std::span<const std::uint8_t> bytes) {
    Require(files.Rename(path, name), "the fixed file cannot be renamed");
    Require(files.WriteAt(name, 0, bytes), "it cannot be written under that name");
    Require(files.Rename(name, path), "it cannot be given its name back");
}

void MakeFolders(machine::GuestFiles files) {
    for (const char16_t* folder :
         {u"\\tries", u"\\tries\\Boot", u"\\tries\\system32", u"\\tries\\system32\\drivers"})
        Require(files.MakeDirectory(folder), "a folder cannot be made");
}

}  // namespace

void ShowRenamed(Stage& stage) {
    stage.BootWith(stage.Protecting(config::kBootModeDiscard));
    const std::u16string path = PickFile(stage.fixedFiles);
    std::mt19937_64 random(909);
    const std::vector<std::uint8_t> bytes = RandomBytes(random, 64 * 1024);
    MakeFolders(stage.computer.Data());
    for (const char16_t* name : kNames) {
        OverwriteAs(stage.computer.Data(), path, name, bytes);
        std::vector<std::uint8_t> back;
        Require(stage.computer.Data().ReadAt(path, 0, bytes.size(), back), "the file cannot be read");
        stage.report.Check("written as " + Narrow(name) + ", this boot sees it", back == bytes,
                           Bytes(bytes.size()) + " of " + Narrow(path));
    }
    stage.computer.Shutdown();
    stage.CheckUnchanged("and none of it reached the volume", "after it");
    stage.computer.Boot();
    stage.CheckFiles("after the reboot the file is the fixed one", stage.fixedFiles);
}

}  // namespace tool
