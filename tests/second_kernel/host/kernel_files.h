// The files that the host kernel itself keeps, in memory: what \SystemRoot leads to when no story plays a file
// system. They survive boots.
#pragma once
#include <map>
#include <mutex>
#include <string>
#include <vector>
#include "machine/files/share_access.h"
#include "platform/host/object/file_provider.h"

class KernelFiles final : public host::FileProvider {
public:
    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override;
    NTSTATUS Delete(const std::u16string& path) override;
    // Forgets every file; none may be open.
    void Clear();

private:
    friend class KernelOpen;
    struct File {
        std::vector<UCHAR> bytes;
        machine::ShareAccess share;
    };
    std::mutex lock_;
    std::map<std::u16string, std::shared_ptr<File>> files_;
};
