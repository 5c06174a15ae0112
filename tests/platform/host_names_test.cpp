// What names lead to: links, named events, and the registry.
#include "host_stub.h"
#include "platform/host/check/injector.h"
#include "platform/host/object/namespace.h"
#include "tests/support/memory_registry.h"

namespace {

using stub::Device;

NTSTATUS Succeed(PDEVICE_OBJECT, PIRP irp) {
    return stub::Complete(irp, STATUS_SUCCESS);
}

struct Counted : UNICODE_STRING {
    explicit Counted(const char16_t* text) { RtlInitUnicodeString(this, text); }
};

class HostNames : public stub::Kernel {
protected:
    void SetUp() override {
        stub::Kernel::SetUp();
        volume.emplace(driver, Succeed, nullptr, u"\\Device\\HarddiskVolume1");
        host::SetSystemRoot(u"\\Device\\HarddiskVolume1\\Windows");
    }
    void TearDown() override {
        volume.reset();
        stub::Kernel::TearDown();
    }
    std::optional<Device> volume;
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

TEST_F(HostNames, LowMemoryEventExistsUnsignalled) {
    Counted low(u"\\KernelObjects\\LowNonPagedPoolCondition"), fresh(u"\\KernelObjects\\Fresh");
    HANDLE handle = nullptr;
    PKEVENT event = IoCreateNotificationEvent(&low, &handle);
    ASSERT_NE(nullptr, event);
    EXPECT_EQ(0, KeReadStateEvent(event));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    KeSetEvent(host::NamedEvent(u"\\kernelobjects\\lownonpagedpoolcondition"), 0, FALSE);
    EXPECT_NE(0, KeReadStateEvent(event));
}

TEST_F(HostNames, RegistryAnswersAsQueriesOfPartialInformationDo) {
    support::MemoryRegistry store;
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
    UCHAR data[4] = {1, 2, 3, 4};
    EXPECT_EQ(STATUS_SUCCESS, ZwSetValueKey(key, &name, 0, REG_BINARY, data, sizeof data));
    EXPECT_EQ(STATUS_SUCCESS, ZwFlushKey(key));
    EXPECT_TRUE(store.flushed);

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
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, ZwDeleteValueKey(key, &absent));
    EXPECT_EQ(STATUS_SUCCESS, ZwDeleteValueKey(key, &name));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(key));
    EXPECT_EQ(STATUS_INVALID_HANDLE, query(&name, 32));
}

}  // namespace
