// The world of this very computer: the device \\.\kvr, its volumes and its registry.
#define WIN32_NO_STATUS  // all of the statuses come from their own header
#include <windows.h>
#undef WIN32_NO_STATUS
#include <ntstatus.h>
#include <winioctl.h>
#include <winternl.h>
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/world.h"

namespace ctl {
namespace {

class WindowsHandle {
public:
    explicit WindowsHandle(HANDLE handle) : handle_(handle) {}
    ~WindowsHandle() {
        if (IsOpen()) CloseHandle(handle_);
    }
    WindowsHandle(const WindowsHandle&) = delete;
    WindowsHandle& operator=(const WindowsHandle&) = delete;
    bool IsOpen() const { return handle_ != INVALID_HANDLE_VALUE && handle_ != nullptr; }
    HANDLE Get() const { return handle_; }

private:
    HANDLE handle_;
};

// The driver's own statuses, which the calls of the subsystem above would turn into other numbers.
class WindowsDriver : public Driver {
public:
    explicit WindowsDriver(HANDLE device) : device_(device) {}

    Answer Control(std::uint32_t code, std::span<const std::uint8_t> input, Bytes& output) override {
        IO_STATUS_BLOCK result{};
        const NTSTATUS status =
            NtDeviceIoControlFile(device_.Get(), nullptr, nullptr, nullptr, &result, code,
                                  const_cast<std::uint8_t*>(input.data()), static_cast<ULONG>(input.size()),
                                  output.empty() ? nullptr : output.data(), static_cast<ULONG>(output.size()));
        const std::size_t filled = NT_SUCCESS(status) ? result.Information : 0;
        output.resize(std::min(filled, output.size()));
        return {status, {}};
    }

private:
    WindowsHandle device_;
};

NTSTATUS OpenDevice(Access access, HANDLE& device) {
    wchar_t path[] = L"\\??\\kvr";
    UNICODE_STRING name{};
    RtlInitUnicodeString(&name, path);
    OBJECT_ATTRIBUTES attributes{};
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK result{};
    const ACCESS_MASK wanted =
        SYNCHRONIZE | FILE_READ_DATA | (access == Access::ReadWrite ? FILE_WRITE_DATA : 0);
    return NtOpenFile(&device, wanted, &attributes, &result, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      0x20 /* FILE_SYNCHRONOUS_IO_NONALERT */);
}

bool IsMissing(Status status) {
    return status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_PATH_NOT_FOUND ||
           status == STATUS_NO_SUCH_DEVICE || status == STATUS_NO_SUCH_FILE;
}

std::wstring Wide(const std::u16string& text) {
    return std::wstring(text.begin(), text.end());
}

std::wstring PathOf(const std::u16string& volume) {
    return L"\\\\?\\GLOBALROOT" + Wide(volume);
}

WindowsHandle OpenVolume(const std::u16string& volume, DWORD access) {
    return WindowsHandle(CreateFileW(PathOf(volume).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     nullptr, OPEN_EXISTING, 0, nullptr));
}

std::uint64_t LengthOf(const std::u16string& volume) {
    const WindowsHandle handle = OpenVolume(volume, GENERIC_READ);
    GET_LENGTH_INFORMATION length{};
    DWORD returned = 0;
    if (!handle.IsOpen() || !DeviceIoControl(handle.Get(), IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length,
                                             sizeof length, &returned, nullptr))
        return 0;
    return static_cast<std::uint64_t>(length.Length.QuadPart);
}

FileSystemKind FileSystemOf(const std::wstring& root) {
    wchar_t name[MAX_PATH + 1] = L"";
    if (!GetVolumeInformationW(root.c_str(), nullptr, 0, nullptr, nullptr, nullptr, name, MAX_PATH + 1))
        return GetLastError() == ERROR_UNRECOGNIZED_VOLUME ? FileSystemKind::None : FileSystemKind::Other;
    return lstrcmpiW(name, L"NTFS") == 0 ? FileSystemKind::Ntfs : FileSystemKind::Other;
}

std::string SystemText(DWORD error) {
    wchar_t text[512] = L"";
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error, 0, text, 512,
                   nullptr);
    std::string utf8 = ToUtf8(std::u16string(text, text + lstrlenW(text)));
    utf8.erase(utf8.find_last_not_of("\r\n .") + 1);
    return utf8.empty() ? "error " + std::to_string(error) : utf8;
}

class WindowsWorld : public World {
public:
    std::unique_ptr<Driver> OpenDriver(Access access) override {
        HANDLE device = nullptr;
        const Status status = OpenDevice(access, device);
        if (IsSuccess(status)) return std::make_unique<WindowsDriver>(device);
        if (status == STATUS_DEVICE_ALREADY_ATTACHED) return nullptr;
        if (IsMissing(status))
            throw Failure("the driver is not loaded (there is no device \\\\.\\kvr)", kExitNotRunning);
        if (status == STATUS_ACCESS_DENIED)
            throw Failure(
                "the driver's control device is for administrators, and this program runs without the "
                "Administrators group's rights; run it as an administrator",
                kExitDenied);
        throw Failure("the driver's control device cannot be opened: " + StatusText(status), kExitNotRunning);
    }

    std::optional<VolumeFacts> Facts(const std::u16string& volume) override {
        const std::wstring root = PathOf(volume) + L"\\";
        VolumeFacts facts;
        ULARGE_INTEGER available{}, total{}, free{};
        if (GetDiskFreeSpaceExW(root.c_str(), &available, &total, &free)) facts.freeBytes = free.QuadPart;
        facts.bytes = std::max<std::uint64_t>(LengthOf(volume), total.QuadPart);
        DWORD sectors = 0, bytes = 0, freeClusters = 0, clusters = 0;
        if (GetDiskFreeSpaceW(root.c_str(), &sectors, &bytes, &freeClusters, &clusters))
            facts.sectorBytes = bytes;
        if (facts.bytes == 0) return std::nullopt;
        facts.removable = GetDriveTypeW(root.c_str()) == DRIVE_REMOVABLE;
        facts.fileSystem = FileSystemOf(root);
        return facts;
    }

    Bytes ReadSectors(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) override {
        const WindowsHandle handle = OpenVolume(volume, GENERIC_READ);
        LARGE_INTEGER place{};
        place.QuadPart = static_cast<LONGLONG>(offset);
        Bytes bytes(length);
        DWORD done = 0;
        const bool read = handle.IsOpen() && SetFilePointerEx(handle.Get(), place, nullptr, FILE_BEGIN) &&
                          ::ReadFile(handle.Get(), bytes.data(), length, &done, nullptr);
        if (!read)
            throw Failure("sectors of " + ToUtf8(volume) + " cannot be read: " + SystemText(GetLastError()));
        if (done != length) throw Failure("sectors of " + ToUtf8(volume) + " lie beyond its end");
        return bytes;
    }

    std::optional<Bytes> ReadRegistry(const std::u16string& value) override {
        HKEY key = nullptr;
        LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"System\\kvr", 0, KEY_QUERY_VALUE, &key);
        if (status == ERROR_FILE_NOT_FOUND) return std::nullopt;
        DWORD length = 0;
        Bytes data;
        const std::wstring name = Wide(value);
        if (status == ERROR_SUCCESS)
            status = RegQueryValueExW(key, name.c_str(), nullptr, nullptr, nullptr, &length);
        if (status == ERROR_SUCCESS) {
            data.resize(length);
            status = RegQueryValueExW(key, name.c_str(), nullptr, nullptr, data.data(), &length);
            data.resize(std::min<std::size_t>(length, data.size()));
        }
        if (key) RegCloseKey(key);
        if (status == ERROR_FILE_NOT_FOUND) return std::nullopt;
        if (status != ERROR_SUCCESS)
            throw Failure("the driver's registry key cannot be read: " +
                          SystemText(static_cast<DWORD>(status)));
        return data;
    }

    // The key is made where it was lost. Its rights are the hive's: administrators may write.
    void WriteSwitch(const std::u16string& value, bool on) override {
        HKEY key = nullptr;
        LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"System\\kvr", 0, nullptr, 0, KEY_SET_VALUE,
                                         nullptr, &key, nullptr);
        const DWORD data = on ? 1 : 0;
        if (status == ERROR_SUCCESS)
            status = RegSetValueExW(key, Wide(value).c_str(), 0, REG_DWORD,
                                    reinterpret_cast<const BYTE*>(&data), sizeof data);
        if (key) RegCloseKey(key);
        if (status == ERROR_ACCESS_DENIED)
            throw Failure("this needs more rights than you have; run it as an administrator", kExitDenied);
        if (status != ERROR_SUCCESS)
            throw Failure("the driver's registry key cannot be written: " +
                          SystemText(static_cast<DWORD>(status)));
    }

    // No control code tells, and the registry may have changed since.
    std::optional<bool> HardeningNow() override { return std::nullopt; }

    int MinutesEast() override {
        TIME_ZONE_INFORMATION zone{};
        const DWORD kind = GetTimeZoneInformation(&zone);
        if (kind == TIME_ZONE_ID_INVALID)
            throw Failure("the computer's time zone is not known: " + SystemText(GetLastError()));
        const LONG more = kind == TIME_ZONE_ID_DAYLIGHT   ? zone.DaylightBias
                          : kind == TIME_ZONE_ID_STANDARD ? zone.StandardBias
                                                          : 0;
        return static_cast<int>(-(zone.Bias + more));
    }

    std::string NextBoot() const override { return "the next start of the computer"; }
};

}  // namespace

std::unique_ptr<World> MakeWorld(const std::string& folder) {
    if (!folder.empty())
        throw Failure("--machine is for hosted machines; here the tool controls this computer", kExitUsage);
    return std::make_unique<WindowsWorld>();
}

}  // namespace ctl
