// A registry in memory. It remembers whether what was set has been flushed.
#pragma once
#include <map>
#include "platform/host/object/registry_store.h"

namespace support {

class MemoryRegistry : public host::RegistryStore {
public:
    NTSTATUS CreateKey(const std::u16string&) override { return STATUS_SUCCESS; }
    NTSTATUS Query(const std::u16string&, const std::u16string& name, host::RegistryValue& value) override {
        const auto found = values.find(name);
        if (found == values.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
        value = found->second;
        return STATUS_SUCCESS;
    }
    NTSTATUS Set(const std::u16string&, const std::u16string& name, const host::RegistryValue& value) override {
        values[name] = value;
        flushed = false;
        return STATUS_SUCCESS;
    }
    NTSTATUS Delete(const std::u16string&, const std::u16string& name) override {
        flushed = false;
        return values.erase(name) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NTSTATUS Flush() override {
        flushed = true;
        return STATUS_SUCCESS;
    }

    std::map<std::u16string, host::RegistryValue> values;
    bool flushed = true;
};

}  // namespace support
