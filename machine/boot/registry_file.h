// The registry of a hosted machine: in memory while it runs, and between boots in a text file that a person
// can read and edit:
//
//   # Registry of a hosted machine
//   [\Registry\Machine\System\kvr]
//   "ConfigShareRead"=dword:00000001
//   "\\Device\\HarddiskVolume1"=hex:e8,03,00,00,00,10,00,00
//   "Other"=hex(1):41,00
//
// In quoted names \\ and \" stand for a backslash and a quote and \uXXXX for any other unit; the file is
// UTF-8. Long values go on over lines that end with ",\".
#pragma once
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include "machine/disk/fault_disk.h"
#include "platform/host/object/registry_store.h"

namespace machine {

// Thread-safe. Changes are visible at once and persist at Flush.
class RegistryFile final : public host::RegistryStore {
public:
    // Loads `path`, or starts empty when there is no such file. Null with one sentence in `error`, which
    // names the file and the line, when it cannot be read or understood.
    static std::unique_ptr<RegistryFile> Open(const std::string& path, std::string& error);
    // Without a file; what was flushed survives the machine's boots all the same.
    static std::unique_ptr<RegistryFile> InMemory();

    // Every change and every flush counts as a write of `power`; null: the power never fails.
    void SetPower(std::shared_ptr<PowerSwitch> power);
    // What a boot after a power cut finds: changes that were not flushed are gone.
    void DropUnflushed();

    [[nodiscard]] NTSTATUS CreateKey(const std::u16string& key) override;
    [[nodiscard]] NTSTATUS Query(const std::u16string& key, const std::u16string& name,
                                 host::RegistryValue& value) override;
    // STATUS_OBJECT_NAME_NOT_FOUND when the key does not exist.
    [[nodiscard]] NTSTATUS Set(const std::u16string& key, const std::u16string& name,
                               const host::RegistryValue& value) override;
    [[nodiscard]] NTSTATUS Delete(const std::u16string& key, const std::u16string& name) override;
    // Replaces the file as a whole: a reader finds the old or the new text, never a part.
    [[nodiscard]] NTSTATUS Flush() override;

    // The text of what Flush would write, and its reverse ("line N: what is wrong" on failure).
    std::string Text() const;
    bool LoadText(const std::string& text, std::string& error);

private:
    struct Value {
        std::u16string name;  // as first set
        host::RegistryValue data;
    };
    struct Key {
        std::u16string name;                     // as first created
        std::map<std::u16string, Value> values;  // by folded name
    };
    using Keys = std::map<std::u16string, Key>;  // by folded name

    static std::string Write(const Keys& keys);
    static bool Parse(const std::string& text, Keys& keys, std::string& error);
    bool ReplaceFile(const std::string& text) const;

    std::string path_;  // empty: in memory
    std::shared_ptr<PowerSwitch> power_;
    mutable std::mutex lock_;  // guards what follows
    Keys keys_;
    Keys flushed_;
    bool changed_ = false;
};

}  // namespace machine
