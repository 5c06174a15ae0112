#include "tests/inject/fake_windows.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <hivex.h>
#include <sys/stat.h>
extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/volume.h>
}
#undef min
#undef max
#include "machine/partition/subprocess.h"

namespace fake_windows {
namespace {

constexpr std::uint64_t kBootOffset = 1ull << 20;

constexpr std::uint64_t BootLength(bool efi) {
    return VolumeOffset(efi) - 2 * kBootOffset;
}

constexpr std::uint64_t DiskLength(bool efi) {
    return VolumeOffset(efi) + kVolumeLength + kBootOffset;
}
constexpr char kBasicData[] = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
constexpr char kClassVolume[] = "{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
constexpr char kClassDisk[] = "{4D36E967-E325-11CE-BFC1-08002BE10318}";

void Run(const std::string& tool, const std::vector<std::string>& arguments) {
    const machine::ToolResult result = machine::RunTool(tool, arguments);
    if (!result.started || result.exitCode != 0) throw std::runtime_error(tool + ": " + result.output);
}

std::vector<char> Chars(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

ntfs_inode* Open(ntfs_volume* volume, const std::string& path) {
    return ntfs_pathname_to_inode(volume, nullptr, path.c_str());
}

void Add(ntfs_volume* volume, const std::string& path, const Bytes* content) {
    const std::size_t last = path.rfind('/');
    ntfs_inode* folder = Open(volume, path.substr(0, last + 1));
    const std::string name = path.substr(last + 1);
    std::vector<ntfschar> text(name.begin(), name.end());
    ntfs_inode* made = ntfs_create(folder, 0, text.data(), static_cast<u8>(text.size()),
                                   content != nullptr ? S_IFREG : S_IFDIR);
    if (made == nullptr) throw std::runtime_error("cannot make " + path);
    ntfs_inode_close(folder);  // first: closing the file writes its size into the folder
    if (content != nullptr) {
        ntfs_attr* data = ntfs_attr_open(made, AT_DATA, AT_UNNAMED, 0);
        ntfs_attr_pwrite(data, 0, static_cast<s64>(content->size()), content->data());
        ntfs_attr_close(data);
    }
    ntfs_inode_close(made);
}

// One partition to start from, then the volume of Windows.
void Partition(const TestFolder& folder, const std::string& image, bool efi) {
    const auto line = [](std::uint64_t offset, std::uint64_t length, const std::string& type) {
        return "start=" + std::to_string(offset / 512) + ",size=" + std::to_string(length / 512) +
               ",type=" + type + "\n";
    };
    const std::string text = (efi ? "label: gpt\n" : "label: dos\n") +
                             line(kBootOffset, BootLength(efi), efi ? "U" : "7,bootable") +
                             line(VolumeOffset(efi), kVolumeLength, efi ? kBasicData : "7");
    const std::string file = HostFile(folder, "table", Bytes(text.begin(), text.end()));
    Run("sh", {"-c", "PATH=$PATH:/usr/sbin:/sbin sfdisk -q \"$0\" < \"$1\"", image, file});
}

std::string VolumeFile(const TestFolder& folder, const std::string& name, std::uint64_t size) {
    const std::string file = folder.Sparse(name, size);
    Run("mkntfs", {"-F", "-Q", "-q", "-s", "512", "-c", "4096", file});
    return file;
}

void Populate(const std::string& file, const std::vector<std::string>& folders,
              const std::map<std::string, Bytes>& files) {
    ntfs_log_set_handler(ntfs_log_handler_null);
    ntfs_volume* volume = ntfs_mount(file.c_str(), 0);
    if (volume == nullptr) throw std::runtime_error("cannot mount " + file);
    for (const std::string& path : folders) Add(volume, path, nullptr);
    for (const auto& [path, content] : files) Add(volume, path, &content);
    ntfs_umount(volume, FALSE);
}

// Empty when there is none.
Bytes ReadFrom(const TestFolder& folder, const std::string& volume, const std::string& path) {
    const std::string out = folder.File("file.out");
    const auto done = machine::RunTool("sh", {"-c", "ntfscat -f \"$0\" \"$1\" > \"$2\"", volume, path, out});
    if (done.exitCode != 0 && done.output.find("No such file") == std::string::npos)
        throw std::runtime_error("ntfscat: " + done.output);
    const std::vector<char> bytes = TestFolder::Bytes(out);
    return {bytes.begin(), bytes.end()};
}

std::string CopyOut(const TestFolder& folder, const std::string& image, std::uint64_t offset,
                    std::uint64_t length) {
    const std::vector<char> disk = TestFolder::Bytes(image);
    const auto begin = disk.begin() + static_cast<std::ptrdiff_t>(offset);
    const std::string file = folder.Sparse("volume.out", 0);
    TestFolder::Put(file, 0, {begin, begin + static_cast<std::ptrdiff_t>(length)});
    return file;
}

void PutVolume(const std::string& image, std::uint64_t offset, const std::string& file) {
    TestFolder::Put(image, offset, TestFolder::Bytes(file));
}

const std::vector<std::string> kFolders = {"/Windows", "/Windows/System32", "/Windows/System32/config",
                                           "/Windows/System32/drivers"};

std::string FatStore(bool efi) {
    return efi ? "::/EFI/Microsoft/Boot/BCD" : "::/Boot/BCD";
}

std::string MakeFatBoot(const TestFolder& folder, const Bytes& store, bool efi) {
    const std::string volume = folder.Sparse("boot", BootLength(efi)), file = HostFile(folder, "BCD", store);
    if (efi) {
        Run("mkfs.fat", {"-F", "32", "-s", "1", volume});
        Run("mmd", {"-i", volume, "::/EFI", "::/EFI/Microsoft", "::/EFI/Microsoft/Boot"});
    } else {
        Run("mkfs.fat", {volume});
        Run("mmd", {"-i", volume, "::/Boot"});
    }
    Run("mcopy", {"-i", volume, file, FatStore(efi)});
    Run("mattrib", {"-i", volume, "+h", "+s", FatStore(efi)});
    return volume;
}

std::string MakeNtfsBoot(const TestFolder& folder, const Bytes& store, bool twice) {
    const std::string volume = VolumeFile(folder, "boot", BootLength(false));
    Populate(volume, {"/Boot"}, {{"/Boot/BCD", store}});
    if (twice) Populate(volume, kFolders, {{"/Windows/System32/config/SYSTEM", store}});
    return volume;
}

void PutBootStore(const TestFolder& folder, const std::string& image, const Shape& shape) {
    const Bytes store = hive_maker::Maker::Make(shape.boot, hive_maker::Lists::Lf);
    PutVolume(image, kBootOffset,
              shape.efi || shape.fatBoot ? MakeFatBoot(folder, store, shape.efi)
                                         : MakeNtfsBoot(folder, store, shape.twice));
}

std::string Upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// Kept in the order that hives want.
Key& Child(Key& key, const std::string& name) {
    const auto same = std::find_if(key.keys.begin(), key.keys.end(),
                                   [&](auto& one) { return Upper(one.name) == Upper(name); });
    if (same != key.keys.end()) return *same;
    const auto place = std::find_if(key.keys.begin(), key.keys.end(),
                                    [&](auto& one) { return Upper(one.name) > Upper(name); });
    return *key.keys.insert(place, {name, {}, {}});
}

void DumpKey(hive_h* hive, hive_node_h node, const std::string& path, std::vector<std::string>& lines) {
    lines.push_back(path);
    hive_value_h* values = hivex_node_values(hive, node);
    for (hive_value_h* value = values; *value != 0; ++value) {
        hive_type type = hive_t_REG_NONE;
        std::uint32_t number;
        std::size_t length;
        char* name = hivex_value_key(hive, *value);
        char* data = hivex_value_value(hive, *value, &type, &length);
        std::memcpy(&number, &type, sizeof number);
        lines.push_back(path + " " + name + " " + std::to_string(number) + " " + std::string(data, length));
        std::free(name);
        std::free(data);
    }
    std::free(values);
    hive_node_h* children = hivex_node_children(hive, node);
    for (hive_node_h* child = children; *child != 0; ++child) {
        char* name = hivex_node_name(hive, *child);
        DumpKey(hive, *child, path + "\\" + name, lines);
        std::free(name);
    }
    std::free(children);
}

}  // namespace

Bytes Dword(std::uint32_t number) {
    Bytes bytes(4);
    std::memcpy(bytes.data(), &number, 4);
    return bytes;
}

Bytes Sz(const std::string& text) {
    Bytes bytes;
    for (const char c : text + '\0') bytes.insert(bytes.end(), {static_cast<std::uint8_t>(c), 0});
    return bytes;
}

Bytes MultiSz(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) all += text + '\0';
    return Sz(all);
}

Key& Below(Key& key, const std::string& path) {
    const std::size_t end = std::min(path.find('\\'), path.size());
    Key& child = Child(key, path.substr(0, end));
    return end == path.size() ? child : Below(child, path.substr(end + 1));
}

Key SystemHive() {
    Key root{"ROOT", {}, {}};
    Below(root, "Select").values = {{"Current", 4, Dword(1)}, {"Default", 4, Dword(1)}};
    for (const std::string set : {"ControlSet001", "ControlSet002"}) {
        Below(root, set + "\\Control\\Class\\" + kClassVolume).values = {
            {"Class", 1, Sz("Volume")}, {"UpperFilters", 7, MultiSz({"volsnap"})}};
        Below(root, set + "\\Control\\Class\\" + kClassDisk).values = {
            {"UpperFilters", 7, MultiSz({"partmgr"})}};
        Below(root, set + "\\Control\\Session Manager\\Environment").values = {
            {"PROCESSOR_ARCHITECTURE", 1, Sz("AMD64")}};
        Below(root, set + "\\Control\\Session Manager\\Memory Management").values = {
            {"PagingFiles", 7, MultiSz({"?:\\pagefile.sys"})}};
        Below(root, set + "\\Services\\disk").values = {{"Start", 4, Dword(0)}};
        Below(root, set + "\\Services\\zzz").values = {{"Big", 3, Bytes(40000, 7)}};
    }
    Below(root, "ControlSet001\\Services\\bam\\State\\UserSettings\\S-1-5-18").values = {
        {"\\Device\\HarddiskVolume3\\Windows\\explorer.exe", 3, Bytes(24, 1)},
        {"\\Device\\HarddiskVolume7\\Setup\\setup.exe", 3, Bytes(24, 1)},
        {"\\device\\harddiskvolume3\\WINDOWS\\System32\\cmd.exe", 3, Bytes(24, 1)}};
    return root;
}

Key SoftwareHive() {
    Key root{"ROOT", {}, {}};
    for (const char* store : {"ROOT", "TrustedPublisher"})
        Below(root, std::string("Microsoft\\SystemCertificates\\") + store + "\\Certificates");
    return root;
}

Key BootHive() {
    Key root{"NewStoreRoot", {}, {}};
    const std::pair<const char*, std::uint32_t> objects[] = {
        {"{9dea862c-5cdd-4e70-acc1-f32b344d4795}", 0x10100002},
        {"{b2721d73-1db4-4c62-bf78-c548a880142d}", 0x10200003},
        {"{c2721d73-1db4-4c62-bf78-c548a880142d}", 0x10200003}};
    for (const auto& [name, type] : objects) {
        Below(root, std::string("Objects\\") + name + "\\Description").values = {{"Type", 4, Dword(type)}};
        Below(root, std::string("Objects\\") + name + "\\Elements\\12000004").values = {
            {"Element", 1, Sz("Windows")}};
    }
    // In one of the two the test mode is on already.
    Below(root, "Objects\\{c2721d73-1db4-4c62-bf78-c548a880142d}\\Elements\\16000049").values = {
        {"Element", 3, {1}}};
    return root;
}

std::string Make(const TestFolder& folder, const Shape& shape) {
    const std::string image = folder.Sparse("disk.raw", DiskLength(shape.efi));
    Partition(folder, image, shape.efi);
    PutBootStore(folder, image, shape);
    const std::string volume = VolumeFile(folder, "windows", kVolumeLength);
    std::map<std::string, Bytes> files = shape.further;
    files["/Windows/System32/config/SYSTEM"] = hive_maker::Maker::Make(shape.system, shape.lists);
    files["/Windows/System32/config/SOFTWARE"] = hive_maker::Maker::Make(shape.software, shape.lists);
    Populate(volume, kFolders, {});
    Populate(volume, shape.folders, {});
    Run("ntfssecaudit", {volume, "755", "/Windows/System32/drivers"});
    Populate(volume, {}, files);
    if (shape.dirty) Run("ntfsfix", {volume});  // leaves it for Windows to check
    PutVolume(image, VolumeOffset(shape.efi), volume);
    return image;
}

Bytes ReadFile(const TestFolder& folder, const std::string& image, const std::string& path, bool efi) {
    return ReadFrom(folder, CopyOut(folder, image, VolumeOffset(efi), kVolumeLength), path);
}

std::string ReadSecurity(const TestFolder& folder, const std::string& image, const std::string& path) {
    const std::string volume = CopyOut(folder, image, VolumeOffset(false), kVolumeLength);
    return machine::RunTool("ntfssecaudit", {volume, path}).output;
}

Bytes ReadBootStore(const TestFolder& folder, const std::string& image, bool efi, bool fatBoot) {
    const std::string volume = CopyOut(folder, image, kBootOffset, BootLength(efi));
    if (!efi && !fatBoot) return ReadFrom(folder, volume, "/Boot/BCD");
    const auto attributes = machine::RunTool("mattrib", {"-i", volume, FatStore(efi)});
    if (attributes.output.find(" SH ") == std::string::npos)
        throw std::runtime_error("not hidden: " + attributes.output);
    Run("mcopy", {"-n", "-o", "-i", volume, FatStore(efi), folder.File("BCD.out")});
    const std::vector<char> bytes = TestFolder::Bytes(folder.File("BCD.out"));
    return {bytes.begin(), bytes.end()};
}

std::string HostFile(const TestFolder& folder, const std::string& name, const Bytes& bytes) {
    TestFolder::Put(folder.Sparse(name, 0), 0, Chars(bytes));
    return folder.File(name);
}

Bytes DriverImage() {
    Bytes image(2048);
    const auto put = [&](std::size_t at, std::uint32_t number) { std::memcpy(&image[at], &number, 4); };
    std::memcpy(image.data(), "MZ", 2);
    put(60, 64);
    std::memcpy(&image[64], "PE\0\0\x64\x86\x01\0", 8);
    put(84, 240 | 0x22 << 16);  // the optional header's size, characteristics
    put(88, 0x20B);
    put(88 + 32, 4096), put(88 + 36, 512);  // alignments
    put(88 + 56, 8192), put(88 + 60, 512);  // sizes
    put(88 + 68, 1);                        // native
    put(88 + 108, 16);                      // directories
    std::memcpy(&image[328], ".rsrc", 5);
    put(336, 512), put(340, 4096), put(344, 1536), put(348, 512);
    const std::uint32_t fixed[] = {0xFEEF04BD, 0x00010000, 0x00010002, 0x00030004};
    std::memcpy(&image[600], fixed, sizeof fixed);
    return image;
}

std::vector<std::string> Dump(const Bytes& hive) {
    const TestFolder folder;
    hive_h* opened = hivex_open(HostFile(folder, "hive", hive).c_str(), 0);
    if (opened == nullptr) throw std::runtime_error("cannot read the hive");
    std::vector<std::string> lines;
    DumpKey(opened, hivex_root(opened), "", lines);
    hivex_close(opened);
    std::sort(lines.begin(), lines.end());
    return lines;
}

}  // namespace fake_windows
