// A short digest that tells settings apart, not contents: FNV-1a, 64 bits.
#pragma once
#include <cstddef>
#include <cstdint>

namespace inspect {

class DigestOf {
public:
    void Add(const void* data, std::size_t length) {
        const auto* bytes = static_cast<const unsigned char*>(data);
        for (std::size_t i = 0; i < length; ++i) value_ = (value_ ^ bytes[i]) * 0x100000001B3u;
    }
    std::uint64_t Value() const { return value_; }

private:
    std::uint64_t value_ = 0xCBF29CE484222325u;
};

}  // namespace inspect
