// Registry hives out of nothing, in the shapes that Windows' own writers give them and the library under test
// never writes: all kinds of key lists, values in pieces.
#pragma once
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace hive_maker {

using Bytes = std::vector<std::uint8_t>;

struct Value {
    std::string name;
    std::uint32_t type;
    Bytes data;
};

struct Key {
    std::string name;
    std::vector<Value> values;
    std::vector<Key> keys;  // in the order of their names in capital letters
};

enum class Lists { Lf, Lh, Li, Ri };

class Maker {
public:
    static Bytes Make(const Key& root, Lists lists) {
        Maker maker(lists);
        maker.sk_ = maker.Cell(maker.Security());
        const std::uint32_t top = maker.AddKey(root, kNone, 0x2C);
        maker.Store(maker.sk_ + 4 + 4, maker.sk_);
        maker.Store(maker.sk_ + 4 + 8, maker.sk_);
        maker.Store(maker.sk_ + 4 + 12, maker.keys_);
        return maker.Finish(top);
    }
    // Makes the head's checksum right.
    static void Seal(Bytes& hive) {
        std::uint32_t checksum = 0, word = 0;
        for (std::size_t at = 0; at < 508; at += 4) {
            std::memcpy(&word, &hive[at], 4);
            checksum ^= word;
        }
        std::memcpy(&hive[508], &checksum, 4);
    }

private:
    static constexpr std::uint32_t kNone = 0xFFFFFFFF;
    static constexpr std::size_t kPage = 4096, kPiece = 16344;

    explicit Maker(Lists lists) : lists_(lists), cells_(32) {}

    template <class Number>
    static void Put(Bytes& bytes, Number number) {
        for (std::size_t i = 0; i < sizeof number; ++i)
            bytes.push_back(static_cast<std::uint8_t>(number >> (8 * i)));
    }
    static void Put(Bytes& bytes, const std::string& text) {
        bytes.insert(bytes.end(), text.begin(), text.end());
    }
    void Store(std::size_t at, std::uint32_t number) { std::memcpy(&cells_[at], &number, sizeof number); }

    std::uint32_t Cell(const Bytes& content) {
        const auto at = static_cast<std::uint32_t>(cells_.size());
        const std::size_t size = (content.size() + 4 + 7) / 8 * 8;
        Put(cells_, static_cast<std::uint32_t>(-static_cast<std::int32_t>(size)));
        cells_.insert(cells_.end(), content.begin(), content.end());
        cells_.resize(at + size);
        return at;
    }

    static Bytes Security() {
        Bytes sk;
        Put(sk, std::string("sk"));
        sk.resize(16);  // the links to itself and the count of keys come when they are known
        const Bytes descriptor = {1, 0, 4, 0x80, 20, 0, 0, 0, 0, 0, 0, 0, 0,  0, 0, 0,
                                  0, 0, 0, 0,    1,  1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};
        Put(sk, static_cast<std::uint32_t>(descriptor.size()));
        sk.insert(sk.end(), descriptor.begin(), descriptor.end());
        return sk;
    }

    std::uint32_t AddData(const Bytes& data) {
        if (data.size() <= kPiece) return Cell(data);
        Bytes pieces, big;
        for (std::size_t at = 0; at < data.size(); at += kPiece)
            Put(pieces, Cell({data.begin() + static_cast<std::ptrdiff_t>(at),
                              data.begin() + static_cast<std::ptrdiff_t>(std::min(data.size(), at + kPiece))}));
        Put(big, std::string("db"));
        Put(big, static_cast<std::uint16_t>(pieces.size() / 4));
        Put(big, Cell(pieces));
        return Cell(big);
    }

    std::uint32_t AddValue(const Value& value) {
        Bytes vk;
        const auto size = static_cast<std::uint32_t>(value.data.size());
        std::uint32_t where = 0;
        if (size > 4)
            where = AddData(value.data);
        else
            std::memcpy(&where, value.data.data(), size);
        Put(vk, std::string("vk"));
        Put(vk, static_cast<std::uint16_t>(value.name.size()));
        Put(vk, size > 4 ? size : size | 0x80000000);
        Put(vk, where);
        Put(vk, value.type);
        Put(vk, static_cast<std::uint16_t>(1));
        Put(vk, static_cast<std::uint16_t>(0));
        Put(vk, value.name);
        return Cell(vk);
    }

    static std::uint32_t Hash(const std::string& name) {
        std::uint32_t hash = 0;
        for (const char c : name) hash = hash * 37 + static_cast<std::uint32_t>(std::toupper(c));
        return hash;
    }

    std::uint32_t AddList(std::span<const Key> keys, std::span<const std::uint32_t> at, Lists kind) {
        static constexpr const char* kMarks[] = {"lf", "lh", "li", "ri"};
        Bytes list;
        Put(list, std::string(kMarks[static_cast<int>(kind)]));
        if (kind == Lists::Ri) {
            const std::size_t half = (at.size() + 1) / 2;
            Put(list, static_cast<std::uint16_t>(at.size() > 1 ? 2 : 1));
            Put(list, AddList(keys.first(half), at.first(half), Lists::Lh));
            if (at.size() > 1) Put(list, AddList(keys.subspan(half), at.subspan(half), Lists::Lh));
            return Cell(list);
        }
        Put(list, static_cast<std::uint16_t>(at.size()));
        for (std::size_t i = 0; i < at.size(); ++i) {
            Put(list, at[i]);
            std::string start = keys[i].name.substr(0, 4);
            start.resize(4);
            if (kind == Lists::Lf) Put(list, start);
            if (kind == Lists::Lh) Put(list, Hash(keys[i].name));
        }
        return Cell(list);
    }

    std::uint32_t AddKey(const Key& key, std::uint32_t parent, std::uint16_t flags) {
        ++keys_;
        Bytes nk;
        Put(nk, std::string("nk"));
        Put(nk, flags);
        nk.resize(76);
        Put(nk, key.name);
        nk[72] = static_cast<std::uint8_t>(key.name.size());
        const std::uint32_t at = Cell(nk);
        std::vector<std::uint32_t> children;
        for (const Key& child : key.keys) children.push_back(AddKey(child, at, 0x20));
        Bytes values;
        for (const Value& value : key.values) Put(values, AddValue(value));
        const std::size_t base = at + 4;
        Store(base + 16, parent == kNone ? at : parent);
        Store(base + 20, static_cast<std::uint32_t>(children.size()));
        Store(base + 28, children.empty() ? kNone : AddList(key.keys, children, lists_));
        Store(base + 32, kNone);
        Store(base + 36, static_cast<std::uint32_t>(key.values.size()));
        Store(base + 40, values.empty() ? kNone : Cell(values));
        Store(base + 44, sk_);
        Store(base + 48, kNone);
        return at;
    }

    Bytes Finish(std::uint32_t top) {
        const std::size_t used = cells_.size();
        cells_.resize((used + 8 + kPage - 1) / kPage * kPage);
        Store(used, static_cast<std::uint32_t>(cells_.size() - used));
        std::memcpy(cells_.data(), "hbin", 4);
        Store(8, static_cast<std::uint32_t>(cells_.size()));
        Bytes hive(kPage);
        const std::uint32_t head[] = {
            0x66676572, 7, 7, 0, 0, 1, 5, 0, 1, top, static_cast<std::uint32_t>(cells_.size()), 1};
        std::memcpy(hive.data(), head, sizeof head);
        Seal(hive);
        hive.insert(hive.end(), cells_.begin(), cells_.end());
        return hive;
    }

    const Lists lists_;
    Bytes cells_;  // from the first page behind the head
    std::uint32_t sk_ = 0, keys_ = 0;
};

}  // namespace hive_maker
