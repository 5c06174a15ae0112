// A registry hive out of an image: its keys and values, and edits of them. Keys are named by their path from
// the root, the parts apart by backslashes; names are UTF-8 and their letters' case of no matter. The hive is a
// copy in memory: nothing reaches the image before Save() has given the edited bytes.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

struct hive_h;

namespace tool {

struct HiveValue {
    std::uint32_t type = 0;
    std::vector<std::uint8_t> bytes;
    bool operator==(const HiveValue&) const = default;
};

HiveValue Number(std::uint32_t number);                 // REG_DWORD
HiveValue Text(const std::string& text);                // REG_SZ
HiveValue PathText(const std::string& text);            // REG_EXPAND_SZ
HiveValue List(const std::vector<std::string>& texts);  // REG_MULTI_SZ
HiveValue Binary(const std::vector<std::uint8_t>& bytes);
// Nothing for a value of another type.
std::optional<std::uint32_t> NumberOf(const std::optional<HiveValue>& value);
std::optional<std::string> TextOf(const std::optional<HiveValue>& value);
std::optional<std::vector<std::string>> ListOf(const std::optional<HiveValue>& value);
// For people: 1, "text", a, b; "not set".
std::string Show(const std::optional<HiveValue>& value);

// "\\Services\\KVR" and "services\\kvr" name the same.
bool SameName(const std::string& one, const std::string& other);

class Hive {
public:
    // `name` is what messages call it. Throws Error for bytes that are no whole hive, and for one that was not
    // written to its end: Windows would repair it from its logs, which would undo an edit.
    Hive(std::string name, std::vector<std::uint8_t> bytes);
    ~Hive();
    Hive(const Hive&) = delete;
    Hive& operator=(const Hive&) = delete;

    bool HasKey(const std::string& key) const;
    std::vector<std::string> Children(const std::string& key) const;  // none where there is no such key
    std::optional<HiveValue> Get(const std::string& key, const std::string& value) const;
    std::vector<std::pair<std::string, HiveValue>> Values(const std::string& key) const;

    // Makes the key where it is missing; a value that is there keeps its name as it is spelled. Throws Error.
    void Set(const std::string& key, const std::string& value, const HiveValue& content);
    // What is not there is deleted already. Throws Error.
    void Delete(const std::string& key, const std::string& value);
    void DeleteKey(const std::string& key);

    bool IsChanged() const { return !touched_.empty(); }
    // The edited hive's bytes, after these were read back and compared with the original, key for key: what no
    // edit named is as it was. Throws Error when it is not.
    std::vector<std::uint8_t> Save();

private:
    using Node = std::size_t;
    Node Find(const std::string& key) const;  // 0: there is none
    Node Make(const std::string& key);
    void RefuseLong(const std::string& key, const std::string& name, const HiveValue& value) const;
    void Put(Node node, const std::string& key, const std::vector<std::pair<std::string, HiveValue>>& values);
    [[noreturn]] void Fail(const std::string& what) const;

    std::string name_;
    std::vector<std::uint8_t> original_;
    hive_h* hive_ = nullptr;
    std::set<std::string> touched_;  // folded paths of what may differ: keys whole, values behind "\\\\"
};

}  // namespace tool
