// A story's file system as the host kernel mounts one.
#pragma once
#include "platform/host/object/file_provider.h"
#include "tests/second_kernel/stage.h"

class PlayedProvider final : public host::FileProvider {
public:
    PlayedProvider(const stage::FileCalls& calls, PVOID fileSystem) : calls_(calls), fileSystem_(fileSystem) {}
    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override;
    NTSTATUS Delete(const std::u16string& path) override;

private:
    const stage::FileCalls& calls_;
    PVOID fileSystem_;
};
