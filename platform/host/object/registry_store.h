// What the host kernel's registry calls rest on. Keys are full paths ("\Registry\Machine\System\kvr"); keys
// and value names are compared without regard to case.
#pragma once
#include <string>
#include <vector>
#include "platform/host/nt/ntzw.h"

namespace host {

struct RegistryValue {
    ULONG type;
    std::vector<UCHAR> data;
};

class RegistryStore {
public:
    virtual ~RegistryStore() = default;
    [[nodiscard]] virtual NTSTATUS CreateKey(const std::u16string& key) = 0;
    [[nodiscard]] virtual NTSTATUS Query(const std::u16string& key, const std::u16string& name,
                                         RegistryValue& value) = 0;  // STATUS_OBJECT_NAME_NOT_FOUND
    [[nodiscard]] virtual NTSTATUS Set(const std::u16string& key, const std::u16string& name,
                                       const RegistryValue& value) = 0;
    [[nodiscard]] virtual NTSTATUS Delete(const std::u16string& key, const std::u16string& name) = 0;
    [[nodiscard]] virtual NTSTATUS Flush() = 0;
};

// The store behind the registry calls; it must outlive its use. Null: no registry, the calls fail with
// STATUS_OBJECT_PATH_NOT_FOUND.
void SetRegistryStore(RegistryStore* store);

}  // namespace host
