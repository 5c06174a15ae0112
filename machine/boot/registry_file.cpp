#include "machine/boot/registry_file.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include "machine/boot/registry_text.h"
#include "machine/names.h"
#include "platform/host/check/host_memory.h"
#include "posix/file_io.h"
#include "posix/utf.h"

namespace machine {
namespace {

using namespace registry_text;

constexpr off_t kMostText = 64 * 1024 * 1024;

// 0 and the text, ENOENT, or another errno.
int ReadWhole(const std::string& path, std::string& text) {
    const posix::File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info;
    if (!file.IsOpen() || fstat(file.Get(), &info) != 0) return errno;
    if (info.st_size > kMostText) return EFBIG;
    text.resize(static_cast<std::size_t>(info.st_size));
    return posix::ReadAt(file.Get(), text.data(), text.size(), 0) ? 0 : errno;
}

void SyncFolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const posix::File file(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot sync a folder; the rename is then as durable as they make it.
    if (file.IsOpen()) (void)fsync(file.Get());
}

// Leave to change something that persists, kept while it is changed.
class Admission {
public:
    explicit Admission(const std::shared_ptr<PowerSwitch>& power) : powered_(power == nullptr) {
        if (power != nullptr) {
            permit_ = power->AdmitWrite();
            powered_ = permit_.Full();
        }
    }
    explicit operator bool() const { return powered_; }

private:
    PowerSwitch::Permit permit_;
    bool powered_;
};

// The next line with its continuations joined, without blanks at its ends.
std::string NextLine(const std::string& text, std::size_t& at, unsigned& number) {
    std::string line;
    bool more = true;
    while (more && at < text.size()) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        std::string part = text.substr(at, end - at);
        at = end + 1;
        ++number;
        const std::size_t first = part.find_first_not_of(" \t\r");
        part = first == std::string::npos ? "" : part.substr(first, part.find_last_not_of(" \t\r") - first + 1);
        more = part.ends_with(",\\");
        if (more) part.pop_back();
        line += part;
    }
    return line;
}

}  // namespace

std::unique_ptr<RegistryFile> RegistryFile::Open(const std::string& path, std::string& error) {
    std::string text;
    const int failure = ReadWhole(path, text);
    if (failure != 0 && failure != ENOENT) {
        error = "cannot read registry file " + path + ": " + std::strerror(failure);
        return nullptr;
    }
    auto registry = std::make_unique<RegistryFile>();
    if (!registry->LoadText(text, error)) {
        error = "registry file " + path + ", " + error;
        return nullptr;
    }
    registry->path_ = path;
    return registry;
}

std::unique_ptr<RegistryFile> RegistryFile::InMemory() {
    return std::make_unique<RegistryFile>();
}

void RegistryFile::SetPower(std::shared_ptr<PowerSwitch> power) {
    power_ = std::move(power);
}

void RegistryFile::DropUnflushed() {
    std::lock_guard hold(lock_);
    Keys kept = host::Insist("the registry", [&] { return flushed_; });
    keys_.swap(kept);
    changed_ = false;
}

NTSTATUS RegistryFile::CreateKey(const std::u16string& key) {
    if (key.empty() || !IsPlainName(key)) return STATUS_OBJECT_NAME_INVALID;
    std::lock_guard hold(lock_);
    std::u16string folded = FoldName(key);
    if (keys_.contains(folded)) return STATUS_SUCCESS;
    const Admission admitted(power_);
    if (!admitted) return STATUS_DEVICE_POWERED_OFF;
    keys_.emplace(std::move(folded), Key{key, {}});
    changed_ = true;
    return STATUS_SUCCESS;
}

NTSTATUS RegistryFile::Query(const std::u16string& key, const std::u16string& name,
                             host::RegistryValue& value) {
    std::lock_guard hold(lock_);
    const auto found = keys_.find(FoldName(key));
    if (found == keys_.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const auto item = found->second.values.find(FoldName(name));
    if (item == found->second.values.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    value = item->second.data;
    return STATUS_SUCCESS;
}

NTSTATUS RegistryFile::Set(const std::u16string& key, const std::u16string& name,
                           const host::RegistryValue& value) {
    std::lock_guard hold(lock_);
    const auto found = keys_.find(FoldName(key));
    if (found == keys_.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const Admission admitted(power_);
    if (!admitted) return STATUS_DEVICE_POWERED_OFF;
    // Whole or not at all: a value without its name or data would be written out as such.
    Value changed{name, value};
    const auto [item, isNew] = found->second.values.try_emplace(FoldName(name), std::move(changed));
    if (!isNew) std::swap(item->second.data, changed.data);
    changed_ = true;
    return STATUS_SUCCESS;
}

NTSTATUS RegistryFile::Delete(const std::u16string& key, const std::u16string& name) {
    std::lock_guard hold(lock_);
    const auto found = keys_.find(FoldName(key));
    if (found == keys_.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const auto item = found->second.values.find(FoldName(name));
    if (item == found->second.values.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const Admission admitted(power_);
    if (!admitted) return STATUS_DEVICE_POWERED_OFF;
    found->second.values.erase(item);
    changed_ = true;
    return STATUS_SUCCESS;
}

NTSTATUS RegistryFile::Flush() {
    std::lock_guard hold(lock_);
    if (!changed_) return STATUS_SUCCESS;
    const Admission admitted(power_);
    if (!admitted) return STATUS_DEVICE_POWERED_OFF;
    Keys written = keys_;
    if (!path_.empty() && !ReplaceFile(Write(written))) return STATUS_IO_DEVICE_ERROR;
    flushed_.swap(written);
    changed_ = false;
    return STATUS_SUCCESS;
}

bool RegistryFile::ReplaceFile(const std::string& text) const {
    const std::string fresh = path_ + ".new";
    // Made anew each time: what somebody put there, a link perhaps, is not written through.
    unlink(fresh.c_str());
    const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (file < 0) return false;
    const bool written = posix::WriteAt(file, text.data(), text.size(), 0) && fsync(file) == 0;
    if (close(file) != 0 || !written || rename(fresh.c_str(), path_.c_str()) != 0) {
        unlink(fresh.c_str());
        return false;
    }
    SyncFolderOf(path_);
    return true;
}

std::string RegistryFile::Text() const {
    std::lock_guard hold(lock_);
    return Write(keys_);
}

std::string RegistryFile::Write(const Keys& keys) {
    std::string text = "# Registry of a hosted machine\n";
    for (const auto& [foldedKey, key] : keys) {
        text += "\n[" + posix::ToUtf8(key.name) + "]\n";
        for (const auto& [foldedName, value] : key.values) {
            text += Quote(value.name) + "=" + WriteData(value.data.type, value.data.data) + "\n";
        }
    }
    return text;
}

bool RegistryFile::LoadText(const std::string& text, std::string& error) {
    Keys keys;
    if (!Parse(text, keys, error)) return false;
    std::lock_guard hold(lock_);
    keys_ = keys;
    flushed_ = std::move(keys);
    changed_ = false;
    return true;
}

bool RegistryFile::Parse(const std::string& text, Keys& keys, std::string& error) {
    Key* key = nullptr;
    unsigned number = 0;
    for (std::size_t at = 0; at < text.size();) {
        const unsigned first = number + 1;
        const std::string line = NextLine(text, at, number);
        const auto wrong = [&](const char* what) {
            error = "line " + std::to_string(first) + ": " + what;
            return false;
        };
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') {
            std::u16string name;
            if (line.size() < 3 || line.back() != ']' || !posix::FromUtf8({&line[1], line.size() - 2}, name) ||
                !IsPlainName(name)) {
                return wrong("this is no key in square brackets");
            }
            key = &keys[FoldName(name)];
            if (key->name.empty()) key->name = name;
            continue;
        }
        Value value;
        std::size_t end = 0;
        if (key == nullptr) return wrong("a value stands before the first key");
        if (!Unquote(line, end, value.name)) return wrong("a value begins with its name in quotes");
        if (end >= line.size() || line[end] != '=') return wrong("an equals sign must follow the name");
        if (!ReadData(std::string_view(line).substr(end + 1), value.data.type, value.data.data)) {
            return wrong("the data is neither dword:XXXXXXXX nor hex:XX,XX nor hex(TYPE):XX,XX");
        }
        if (!key->values.emplace(FoldName(value.name), std::move(value)).second)
            return wrong("the value stands twice");
    }
    return true;
}

}  // namespace machine
