#include "tool/inject/hive.h"
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <fcntl.h>
#include <hivex.h>
#include <sys/mman.h>
#include <unistd.h>
#include "posix/file_io.h"
#include "posix/utf.h"
#include "tool/error.h"

namespace tool {
namespace {

// The head of a hive, as far as it says whether the hive is whole.
struct HiveHead {
    char magic[4];
    std::uint32_t firstSequence;   // counted up before a write of the hive ...
    std::uint32_t secondSequence;  // ... and after it
    std::uint8_t further[496];
    std::uint32_t checksum;  // all of the words before, by exclusive or
};
static_assert(sizeof(HiveHead) == 512);
static_assert(offsetof(HiveHead, checksum) == 508);

constexpr std::size_t kLeastHive = 8192;  // the head's block and one of cells
// Longer ones are stored in pieces; the library would write one anew as a whole, which Windows takes for
// pieces.
constexpr std::size_t kMostPlainValue = 16344;
constexpr int kDeepest = 512;  // as deep as Windows lets keys lie

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};
template <class Thing>
using Freed = std::unique_ptr<Thing, Free>;

std::string Fold(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::vector<std::string> Parts(const std::string& path) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t end = std::min(path.find('\\', at), path.size());
        if (end > at) parts.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

std::string FoldPath(const std::string& path) {
    std::string folded;
    for (const std::string& part : Parts(path)) folded += "\\" + Fold(part);
    return folded;
}

std::string ValuePath(const std::string& key, const std::string& value) {
    return FoldPath(key) + "\\\\" + Fold(value);
}

void AppendText(std::vector<std::uint8_t>& bytes, const std::string& text) {
    std::u16string wide;
    if (!posix::FromUtf8(text, wide)) throw Error("\"" + text + "\" is no UTF-8 text");
    wide.push_back(u'\0');
    for (const char16_t c : wide) {
        bytes.push_back(static_cast<std::uint8_t>(c));
        bytes.push_back(static_cast<std::uint8_t>(c >> 8));
    }
}

// The texts that lie there one behind the other, each but perhaps the last ended by a zero.
std::vector<std::string> Texts(const std::vector<std::uint8_t>& bytes) {
    std::vector<std::string> texts;
    std::u16string text;
    for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
        const auto c = static_cast<char16_t>(bytes[at] | bytes[at + 1] << 8);
        if (c != 0) text += c;
        if (c == 0 || at + 3 >= bytes.size()) {
            if (text.empty()) break;
            texts.push_back(posix::ToUtf8(text));
            text.clear();
        }
    }
    return texts;
}

HiveValue OfTexts(std::uint32_t type, const std::vector<std::string>& texts) {
    HiveValue value{type, {}};
    for (const std::string& text : texts) AppendText(value.bytes, text);
    return value;
}

// A file in memory alone, for a library that wants a file's name.
class MemoryFile {
public:
    MemoryFile() : file_(memfd_create("hive", MFD_CLOEXEC)) {
        if (!file_.IsOpen()) throw Error(std::string("no room for a hive: ") + std::strerror(errno));
    }
    void Write(const std::vector<std::uint8_t>& bytes) {
        if (!posix::WriteAt(file_.Get(), bytes.data(), bytes.size(), 0))
            throw Error(std::string("no room for a hive: ") + std::strerror(errno));
    }
    std::vector<std::uint8_t> Read() const {
        std::vector<std::uint8_t> bytes(
            static_cast<std::size_t>(std::max<off_t>(lseek(file_.Get(), 0, SEEK_END), 0)));
        if (!posix::ReadAt(file_.Get(), bytes.data(), bytes.size(), 0)) throw Error("cannot read a hive back");
        return bytes;
    }
    std::string Name() const { return "/proc/self/fd/" + std::to_string(file_.Get()); }

private:
    posix::File file_;
};

hive_h* Open(const std::vector<std::uint8_t>& bytes, int flags) {
    MemoryFile file;
    file.Write(bytes);
    return hivex_open(file.Name().c_str(), flags);
}

// Windows has more types than the library has names for, so its enumeration is only ever a place for the
// number.
static_assert(sizeof(hive_type) == sizeof(std::uint32_t));

std::uint32_t TypeNumber(const hive_type& type) {
    std::uint32_t number = 0;
    std::memcpy(&number, &type, sizeof number);
    return number;
}

enum class Unreadable { Refused, Kept };
constexpr std::uint32_t kUnreadable = 0xFFFFFFFF;

// A value that the library cannot read is an error, or one of a type of its own, the same before and after an
// edit.
std::vector<std::pair<std::string, HiveValue>> ReadValues(hive_h* hive, std::size_t node,
                                                          Unreadable unreadable = Unreadable::Refused) {
    std::vector<std::pair<std::string, HiveValue>> values;
    const Freed<hive_value_h> handles(hivex_node_values(hive, node));
    if (handles == nullptr) throw Error(std::string("a key's values cannot be read: ") + std::strerror(errno));
    for (const hive_value_h* handle = handles.get(); *handle != 0; ++handle) {
        hive_type type = hive_t_REG_NONE;
        std::size_t length = 0, whole = 0;
        const Freed<char> name(hivex_value_key(hive, *handle));
        const Freed<char> data(hivex_value_value(hive, *handle, &type, &length));
        if (name == nullptr || (data == nullptr && unreadable == Unreadable::Refused))
            throw Error(std::string("a value cannot be read: ") + std::strerror(errno));
        // Of a value in pieces the library leaves out a last one of up to four bytes.
        if (unreadable == Unreadable::Refused &&
            (hivex_value_type(hive, *handle, &type, &whole) != 0 || whole != length))
            throw Error(std::string("of the value ") + name.get() + " only a part can be read");
        if (data == nullptr) {
            values.push_back({name.get(), {kUnreadable, {}}});
            continue;
        }
        const auto* first = reinterpret_cast<const std::uint8_t*>(data.get());
        values.push_back({name.get(), {TypeNumber(type), {first, first + length}}});
    }
    return values;
}

std::map<std::string, std::size_t> ReadChildren(hive_h* hive, std::size_t node, bool fold) {
    std::map<std::string, std::size_t> children;
    const Freed<hive_node_h> handles(hivex_node_children(hive, node));
    if (handles == nullptr) throw Error(std::string("a key's keys cannot be read: ") + std::strerror(errno));
    for (const hive_node_h* handle = handles.get(); *handle != 0; ++handle) {
        const Freed<char> name(hivex_node_name(hive, *handle));
        if (name == nullptr) throw Error(std::string("a key's name cannot be read: ") + std::strerror(errno));
        if (!children.emplace(fold ? Fold(name.get()) : name.get(), *handle).second)
            throw Error("two keys of one folder have the same name");
    }
    return children;
}

// Both trees, key for key; a difference that `allowed` does not name throws Error.
class Comparison {
public:
    Comparison(hive_h* before, hive_h* after, const std::set<std::string>& allowed)
        : before_(before), after_(after), allowed_(allowed) {}

    void Keys(std::size_t before, std::size_t after, const std::string& path, int depth) {
        // A key that stands in two places would be walked again and again.
        if (depth > kDeepest || !seen_.insert(before).second) throw Error("its keys are no tree");
        Values(before, after, path);
        auto old = ReadChildren(before_, before, true);
        for (const auto& [name, node] : ReadChildren(after_, after, true)) {
            const std::string child = Key(path, name);
            const auto same = old.find(name);
            if (same == old.end()) {
                Allow(child);
                continue;
            }
            if (!allowed_.contains(child)) Keys(same->second, node, child, depth + 1);
            old.erase(same);
        }
        for (const auto& [name, node] : old) Allow(Key(path, name));
    }

private:
    static std::string Key(std::string path, const std::string& name) { return path.append("\\").append(name); }
    static std::string Value(std::string path, const std::string& name) {
        return path.append("\\\\").append(name);
    }

    void Allow(const std::string& path) const {
        if (!allowed_.contains(path)) throw Error("the edit would change " + path);
    }

    void Values(std::size_t before, std::size_t after, const std::string& path) const {
        const auto sorted = [](auto values) {
            std::map<std::string, HiveValue> map;
            for (auto& [name, value] : values) map[Fold(name)] = value;
            return map;
        };
        auto old = sorted(ReadValues(before_, before, Unreadable::Kept));
        for (const auto& [name, value] : sorted(ReadValues(after_, after, Unreadable::Kept))) {
            const auto same = old.find(name);
            if (same == old.end() || same->second != value) Allow(Value(path, name));
            if (same != old.end()) old.erase(same);
        }
        for (const auto& [name, value] : old) Allow(Value(path, name));
    }

    hive_h* before_;
    hive_h* after_;
    const std::set<std::string>& allowed_;
    std::set<std::size_t> seen_;
};

}  // namespace

HiveValue Number(std::uint32_t number) {
    HiveValue value{hive_t_REG_DWORD, {}};
    for (int i = 0; i < 4; ++i) value.bytes.push_back(static_cast<std::uint8_t>(number >> (8 * i)));
    return value;
}

HiveValue Text(const std::string& text) {
    return OfTexts(hive_t_REG_SZ, {text});
}

HiveValue PathText(const std::string& text) {
    return OfTexts(hive_t_REG_EXPAND_SZ, {text});
}

HiveValue List(const std::vector<std::string>& texts) {
    HiveValue value = OfTexts(hive_t_REG_MULTI_SZ, texts);
    value.bytes.insert(value.bytes.end(), {0, 0});
    return value;
}

HiveValue Binary(const std::vector<std::uint8_t>& bytes) {
    return {hive_t_REG_BINARY, bytes};
}

std::optional<std::uint32_t> NumberOf(const std::optional<HiveValue>& value) {
    if (!value || value->type != hive_t_REG_DWORD || value->bytes.size() != 4) return {};
    std::uint32_t number = 0;
    for (std::size_t i = 4; i-- > 0;) number = number << 8 | value->bytes[i];
    return number;
}

std::optional<std::string> TextOf(const std::optional<HiveValue>& value) {
    if (!value || (value->type != hive_t_REG_SZ && value->type != hive_t_REG_EXPAND_SZ)) return {};
    const std::vector<std::string> texts = Texts(value->bytes);
    return texts.empty() ? "" : texts.front();
}

std::optional<std::vector<std::string>> ListOf(const std::optional<HiveValue>& value) {
    if (!value || value->type != hive_t_REG_MULTI_SZ) return {};
    return Texts(value->bytes);
}

std::string Show(const std::optional<HiveValue>& value) {
    if (!value) return "not set";
    if (const auto number = NumberOf(value)) return std::to_string(*number);
    if (const auto text = TextOf(value)) return "\"" + *text + "\"";
    if (const auto list = ListOf(value)) {
        std::string shown;
        for (const std::string& text : *list) shown += (shown.empty() ? "" : ", ") + text;
        return list->empty() ? "empty" : shown;
    }
    return std::to_string(value->bytes.size()) + " bytes";
}

bool SameName(const std::string& one, const std::string& other) {
    return Fold(one) == Fold(other);
}

Hive::Hive(std::string name, std::vector<std::uint8_t> bytes)
    : name_(std::move(name)), original_(std::move(bytes)) {
    HiveHead head{};
    if (original_.size() < kLeastHive) throw Error("the hive " + name_ + " is too short for one");
    std::memcpy(&head, original_.data(), sizeof head);
    if (std::memcmp(head.magic, "regf", sizeof head.magic) != 0) throw Error("the hive " + name_ + " is none");
    std::uint32_t checksum = 0;
    for (std::size_t at = 0; at < offsetof(HiveHead, checksum); at += sizeof checksum) {
        std::uint32_t word = 0;
        std::memcpy(&word, &original_[at], sizeof word);
        checksum ^= word;
    }
    if (checksum == 0xFFFFFFFF) checksum = 0xFFFFFFFE;
    if (checksum == 0) checksum = 1;
    if (head.firstSequence != head.secondSequence || checksum != head.checksum)
        throw Error("the hive " + name_ + " needs recovery from its logs: start Windows and shut it down");
    hive_ = Open(original_, HIVEX_OPEN_WRITE);
    if (hive_ == nullptr) Fail("cannot be read");
}

Hive::~Hive() {
    if (hive_ != nullptr) hivex_close(hive_);
}

void Hive::Fail(const std::string& what) const {
    throw Error("the hive " + name_ + " " + what + ": " + std::strerror(errno));
}

Hive::Node Hive::Find(const std::string& key) const {
    Node node = hivex_root(hive_);
    for (const std::string& part : Parts(key)) {
        if (node == 0) break;
        errno = 0;
        const Node next = hivex_node_get_child(hive_, node, part.c_str());
        if (next == 0 && errno != 0 && errno != HIVEX_NO_KEY) Fail("is damaged");
        node = next;
    }
    return node;
}

Hive::Node Hive::Make(const std::string& key) {
    Node node = hivex_root(hive_);
    std::string path;
    for (const std::string& part : Parts(key)) {
        path += "\\" + part;
        Node next = hivex_node_get_child(hive_, node, part.c_str());
        if (next == 0) {
            next = hivex_node_add_child(hive_, node, part.c_str());
            touched_.insert(FoldPath(path));
        }
        if (next == 0) Fail("takes no key " + path);
        node = next;
    }
    return node;
}

bool Hive::HasKey(const std::string& key) const {
    return Find(key) != 0;
}

std::vector<std::string> Hive::Children(const std::string& key) const {
    std::vector<std::string> names;
    if (const Node node = Find(key)) {
        for (const auto& [name, child] : ReadChildren(hive_, node, false)) names.push_back(name);
    }
    return names;
}

std::vector<std::pair<std::string, HiveValue>> Hive::Values(const std::string& key) const {
    const Node node = Find(key);
    if (node == 0) return {};
    return ReadValues(hive_, node);
}

std::optional<HiveValue> Hive::Get(const std::string& key, const std::string& value) const {
    for (auto& [name, content] : Values(key)) {
        if (SameName(name, value)) return content;
    }
    return {};
}

void Hive::RefuseLong(const std::string& key, const std::string& name, const HiveValue& value) const {
    if (value.bytes.size() <= kMostPlainValue) return;
    const std::string bytes = std::to_string(value.bytes.size());
    throw Error("the hive " + name_ + " keeps " + name + " in " + key + ", with " + bytes +
                " bytes too long to be written anew beside it");
}

// All values of a key are written anew.
void Hive::Put(Node node, const std::string& key,
               const std::vector<std::pair<std::string, HiveValue>>& values) {
    std::vector<hive_set_value> all;
    for (const auto& [name, value] : values) {
        RefuseLong(key, name, value);
        auto* data = reinterpret_cast<char*>(const_cast<std::uint8_t*>(value.bytes.data()));
        all.push_back({const_cast<char*>(name.c_str()), hive_t_REG_NONE, value.bytes.size(), data});
        std::memcpy(&all.back().t, &value.type, sizeof value.type);
    }
    if (hivex_node_set_values(hive_, node, all.size(), all.data(), 0) != 0) Fail("takes no values in " + key);
}

void Hive::Set(const std::string& key, const std::string& value, const HiveValue& content) {
    if (Get(key, value) == content) return;
    const Node node = Make(key);
    auto values = ReadValues(hive_, node);
    const auto same =
        std::find_if(values.begin(), values.end(), [&](auto& one) { return SameName(one.first, value); });
    if (same != values.end())
        same->second = content;
    else
        values.push_back({value, content});
    Put(node, key, values);
    touched_.insert(ValuePath(key, value));
}

void Hive::Delete(const std::string& key, const std::string& value) {
    if (!Get(key, value)) return;
    const Node node = Find(key);
    auto values = ReadValues(hive_, node);
    std::erase_if(values, [&](auto& one) { return SameName(one.first, value); });
    Put(node, key, values);
    touched_.insert(ValuePath(key, value));
}

void Hive::DeleteKey(const std::string& key) {
    const Node node = Find(key);
    if (node == 0) return;
    if (hivex_node_delete_child(hive_, node) != 0) {
        if (errno == ENOTSUP)
            throw Error("the hive " + name_ + " lists what lies beside " + key +
                        " in the old way (li), of which nothing can be deleted here");
        Fail("cannot lose " + key);
    }
    touched_.insert(FoldPath(key));
}

std::vector<std::uint8_t> Hive::Save() {
    MemoryFile file;
    if (hivex_commit(hive_, file.Name().c_str(), 0) != 0) Fail("cannot be written");
    std::vector<std::uint8_t> bytes = file.Read();
    const std::unique_ptr<hive_h, decltype(&hivex_close)> before(Open(original_, 0), hivex_close);
    const std::unique_ptr<hive_h, decltype(&hivex_close)> after(Open(bytes, 0), hivex_close);
    if (before == nullptr || after == nullptr) Fail("cannot be read back");
    try {
        Comparison(before.get(), after.get(), touched_)
            .Keys(hivex_root(before.get()), hivex_root(after.get()), "", 0);
    } catch (const Error& error) {
        throw Error("the hive " + name_ + " is not edited: " + error.what());
    }
    return bytes;
}

}  // namespace tool
