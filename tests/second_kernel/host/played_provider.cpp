#include "tests/second_kernel/host/played_provider.h"

namespace {

class PlayedOpenFile final : public host::OpenFile {
public:
    PlayedOpenFile(const stage::FileCalls& calls, PVOID open) : calls_(calls), open_(open) {}
    ~PlayedOpenFile() override { calls_.Close(open_); }
    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
        return calls_.Read(open_, offset, buffer, length, &done);
    }
    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
        return calls_.Write(open_, offset, buffer, length, &done);
    }

private:
    const stage::FileCalls& calls_;
    PVOID open_;
};

UNICODE_STRING CountedPath(const std::u16string& path) {
    const auto bytes = static_cast<USHORT>(path.size() * sizeof(WCHAR));
    return {bytes, bytes, const_cast<PWSTR>(path.data())};
}

}  // namespace

NTSTATUS PlayedProvider::Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                              ULONG_PTR& information) {
    const UNICODE_STRING path = CountedPath(request.path);
    PVOID open = nullptr;
    const NTSTATUS status = calls_.Create(fileSystem_, &path, request.access, request.share,
                                          request.disposition, request.options, &open, &information);
    if (NT_SUCCESS(status)) file = std::make_unique<PlayedOpenFile>(calls_, open);
    return status;
}

NTSTATUS PlayedProvider::Delete(const std::u16string& path) {
    const UNICODE_STRING counted = CountedPath(path);
    return calls_.Delete(fileSystem_, &counted);
}
