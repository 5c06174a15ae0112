// What names lead to: links, files of a mounted file system, named events, and the registry.
#include "host_stub.h"
#include <map>
#include "platform/host/injector.h"
#include "platform/host/namespace.h"
#include "platform/host/registry_store.h"

namespace {

using stub::Device;

NTSTATUS Succeed(PDEVICE_OBJECT, PIRP irp) {
    return stub::Complete(irp, STATUS_SUCCESS);
}

struct Counted : UNICODE_STRING {
    explicit Counted(const char16_t* text) { RtlInitUnicodeString(this, text); }
};

// One growing file; `open` counts its openers.
struct OneFile : host::FileProvider {
    struct Opened : host::OpenFile {
        OneFile& fs;
        explicit Opened(OneFile& owner) : fs(owner) { ++fs.open; }
        ~Opened() override { --fs.open; }
        NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
            done = 77;  // means nothing beside a failure
            if (offset >= static_cast<LONGLONG>(fs.data.size())) return STATUS_END_OF_FILE;
            done = static_cast<ULONG>(fs.data.copy(static_cast<char*>(buffer), length, offset));
            return STATUS_SUCCESS;
        }
        NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
            const auto start = static_cast<std::size_t>(offset);
            if (fs.data.size() < start + length) fs.data.resize(start + length);
            fs.data.replace(start, length, static_cast<const char*>(buffer), length);
            done = length;
            return STATUS_SUCCESS;
        }
    };
    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override {
        last = request;
        if (request.path != u"\\Windows\\a.cfg") return STATUS_OBJECT_NAME_NOT_FOUND;
        file = std::make_unique<Opened>(*this);
        information = FILE_OPENED;
        return STATUS_SUCCESS;
    }
    NTSTATUS Delete(const std::u16string& path) override {
        deleted = path;
        return STATUS_SUCCESS;
    }
    host::FileOpen last{};
    std::u16string deleted;
    std::string data;
    int open = 0;
};

class HostNames : public stub::Kernel {
protected:
    void SetUp() override {
        stub::Kernel::SetUp();
        volume.emplace(driver, Succeed, nullptr, u"\\Device\\HarddiskVolume1");
        volume->object->SectorSize = 512;
        host::MountProvider(volume->object, &fs);
        host::SetSystemRoot(u"\\Device\\HarddiskVolume1\\Windows");
    }
    void TearDown() override {
        volume.reset();
        stub::Kernel::TearDown();
    }
    NTSTATUS Open(const char16_t* path, HANDLE& handle) {
        Counted name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                                   nullptr);
        const NTSTATUS status = ZwCreateFile(&handle, FILE_READ_DATA | SYNCHRONIZE, &attributes, &iosb, nullptr,
                                             FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_OPEN,
                                             FILE_NO_INTERMEDIATE_BUFFERING, nullptr, 0);
        EXPECT_EQ(status, iosb.Status);
        return status;
    }
    std::optional<Device> volume;
    OneFile fs;
    IO_STATUS_BLOCK iosb{};
};

TEST_F(HostNames, LinksLeadToDevices) {
    Counted link(u"\\DosDevices\\C:"), target(u"\\Device\\HarddiskVolume1");
    EXPECT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&link, &target));
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, IoCreateSymbolicLink(&link, &target));
    Counted sameLink(u"\\??\\c:"), ringA(u"\\??\\a"), ringB(u"\\??\\b"), nowhere(u"\\Nowhere\\x");
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, IoCreateSymbolicLink(&sameLink, &target));
    EXPECT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&ringA, &ringB));
    EXPECT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&ringB, &ringA));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, IoCreateSymbolicLink(&nowhere, &target));

    const auto resolve = [&](const char16_t* path) {
        host::ResolvedPath at;
        const NTSTATUS status = host::ResolvePath(path, at);
        EXPECT_EQ(NT_SUCCESS(status) ? volume->object : nullptr, at.device);
        return std::pair(status, at.rest);
    };
    using Found = std::pair<NTSTATUS, std::u16string>;
    EXPECT_EQ(Found(STATUS_SUCCESS, u""), resolve(u"\\??\\C:"));
    EXPECT_EQ(Found(STATUS_SUCCESS, u"\\Dir\\f"), resolve(u"\\dosdevices\\c:\\Dir\\f"));
    EXPECT_EQ(Found(STATUS_SUCCESS, u"\\Windows\\System32"), resolve(u"\\systemroot\\System32"));
    // A longer component is another name.
    EXPECT_EQ(Found(STATUS_OBJECT_NAME_NOT_FOUND, u""), resolve(u"\\Device\\HarddiskVolume12"));
    EXPECT_EQ(Found(STATUS_OBJECT_PATH_NOT_FOUND, u""), resolve(u"\\Device\\HarddiskVolume12\\f"));
    EXPECT_EQ(Found(STATUS_OBJECT_NAME_INVALID, u""), resolve(u"\\??\\a\\f"));
    EXPECT_EQ(Found(STATUS_OBJECT_NAME_INVALID, u""), resolve(u"C:\\f"));

    EXPECT_EQ(STATUS_SUCCESS, IoDeleteSymbolicLink(&sameLink));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, IoDeleteSymbolicLink(&link));
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, IoDeleteSymbolicLink(&target));
}

TEST_F(HostNames, FilesReachTheMountedFileSystem) {
    HANDLE file = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, Open(u"\\SystemRoot\\a.cfg", file));
    EXPECT_EQ(static_cast<ULONG_PTR>(FILE_OPENED), iosb.Information);
    EXPECT_EQ(FILE_SHARE_READ, fs.last.share);
    EXPECT_EQ(1, fs.open);
    std::string block(1024, 'k'), back(1024, ' ');
    LARGE_INTEGER at{};
    const auto transfer = [&](auto call, std::string& data, ULONG length, LONGLONG offset) {
        at.QuadPart = offset;
        return call(file, nullptr, nullptr, nullptr, &iosb, data.data(), length, &at, nullptr);
    };
    EXPECT_EQ(STATUS_SUCCESS, transfer(ZwWriteFile, block, 1024, 512));
    EXPECT_EQ(1024u, iosb.Information);
    EXPECT_EQ(STATUS_SUCCESS, transfer(ZwReadFile, back, 1024, 1024));
    EXPECT_EQ(512u, iosb.Information);
    EXPECT_EQ(STATUS_END_OF_FILE, transfer(ZwReadFile, back, 512, 1536));
    EXPECT_EQ(0u, iosb.Information);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, transfer(ZwReadFile, back, 100, 0));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, transfer(ZwReadFile, back, 512, 100));
    host::FailCall(host::FaultBit(host::Fault::FileIo), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, transfer(ZwWriteFile, block, 512, 0));
    host::DisarmFaults();
    EXPECT_EQ('\0', fs.data[0]);
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(file));
    EXPECT_EQ(0, fs.open);
    EXPECT_EQ(STATUS_INVALID_HANDLE, transfer(ZwReadFile, back, 512, 0));

    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(u"\\SystemRoot\\b", file));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, Open(u"\\??\\Q:\\b", file));
    host::FailCall(host::FaultBit(host::Fault::FileOpen), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Open(u"\\SystemRoot\\a.cfg", file));
    host::DisarmFaults();
    EXPECT_EQ(0, fs.open);
    Counted name(u"\\Device\\HarddiskVolume1\\kvr.MAP");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    EXPECT_EQ(STATUS_SUCCESS, ZwDeleteFile(&attributes));
    EXPECT_EQ(u"\\kvr.MAP", fs.deleted);
    host::UnmountProvider(volume->object);
    EXPECT_EQ(STATUS_UNRECOGNIZED_VOLUME, Open(u"\\SystemRoot\\a.cfg", file));
}

TEST_F(HostNames, LowMemoryEventExistsUnsignalled) {
    Counted low(u"\\KernelObjects\\LowNonPagedPoolCondition"), fresh(u"\\KernelObjects\\Fresh");
    HANDLE handle = nullptr;
    PKEVENT event = IoCreateNotificationEvent(&low, &handle);
    ASSERT_NE(nullptr, event);
    EXPECT_EQ(0, KeReadStateEvent(event));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    KeSetEvent(host::NamedEvent(u"\\kernelobjects\\lownonpagedpoolcondition"), 0, FALSE);
    EXPECT_NE(0, KeReadStateEvent(event));
    event = IoCreateNotificationEvent(&fresh, &handle);
    EXPECT_NE(0, KeReadStateEvent(event));  // one that an opener makes starts signalled
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
}

struct TinyStore : host::RegistryStore {
    NTSTATUS CreateKey(const std::u16string& key) override {
        created = key;
        return STATUS_SUCCESS;
    }
    NTSTATUS Query(const std::u16string&, const std::u16string& name, host::RegistryValue& value) override {
        if (values.count(name) == 0) return STATUS_OBJECT_NAME_NOT_FOUND;
        value = values[name];
        return STATUS_SUCCESS;
    }
    NTSTATUS Set(const std::u16string&, const std::u16string& name, const host::RegistryValue& value) override {
        values[name] = value;
        return STATUS_SUCCESS;
    }
    NTSTATUS Delete(const std::u16string&, const std::u16string& name) override {
        return values.erase(name) != 0 ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NTSTATUS Flush() override {
        ++flushes;
        return STATUS_SUCCESS;
    }
    std::u16string created;
    std::map<std::u16string, host::RegistryValue> values;
    int flushes = 0;
};

TEST_F(HostNames, RegistryAnswersAsQueriesOfPartialInformationDo) {
    TinyStore store;
    Counted path(u"\\Registry\\Machine\\System\\kvr"), name(u"value"), absent(u"absent");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE key = nullptr;
    const auto open = [&] {
        return ZwCreateKey(&key, KEY_QUERY_VALUE, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, nullptr);
    };
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, open());
    host::SetRegistryStore(&store);
    ASSERT_EQ(STATUS_SUCCESS, open());
    EXPECT_EQ(u"\\Registry\\Machine\\System\\kvr", store.created);
    UCHAR data[4] = {1, 2, 3, 4};
    EXPECT_EQ(STATUS_SUCCESS, ZwSetValueKey(key, &name, 0, REG_BINARY, data, sizeof data));
    EXPECT_EQ(STATUS_SUCCESS, ZwFlushKey(key));
    EXPECT_EQ(1, store.flushes);

    alignas(4) UCHAR buffer[32];
    auto* info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
    ULONG needed = 0;
    const auto query = [&](PUNICODE_STRING value, ULONG length) {
        std::fill(buffer, buffer + sizeof buffer, 0xEE);
        needed = 0;
        return ZwQueryValueKey(key, value, KeyValuePartialInformation, length == 0 ? nullptr : buffer, length,
                               &needed);
    };
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, query(&name, 0));
    EXPECT_EQ(16u, needed);
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, query(&name, 11));
    EXPECT_EQ(0xEE, buffer[0]);
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, query(&name, 14));
    EXPECT_EQ(4u, info->DataLength);
    EXPECT_EQ(2, info->Data[1]);
    EXPECT_EQ(0xEE, info->Data[2]);
    EXPECT_EQ(STATUS_SUCCESS, query(&name, 16));
    EXPECT_EQ(REG_BINARY, info->Type);
    EXPECT_EQ(4, info->Data[3]);
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, query(&absent, 32));
    EXPECT_EQ(0u, needed);
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, ZwDeleteValueKey(key, &absent));
    EXPECT_EQ(STATUS_SUCCESS, ZwDeleteValueKey(key, &name));
    host::FailFromCall(host::FaultBit(host::Fault::Registry), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, open());
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, query(&name, 32));
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, ZwSetValueKey(key, &name, 0, REG_BINARY, data, sizeof data));
    host::DisarmFaults();
    EXPECT_TRUE(store.values.empty());
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(key));
    EXPECT_EQ(STATUS_INVALID_HANDLE, query(&name, 32));
}

TEST_F(HostNames, DeletedDeviceTakesItsNameAndMountAway) {
    volume->Delete();
    HANDLE file = nullptr;
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, Open(u"\\SystemRoot\\a.cfg", file));
}

}  // namespace
