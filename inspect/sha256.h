// SHA-256, the library's.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

struct evp_md_ctx_st;

namespace inspect {

using Digest = std::array<std::uint8_t, 32>;

class Sha256 {
public:
    Sha256();  // throws Error where it is not available, as the others do when it fails
    void Add(const void* data, std::size_t length);
    // Ends this digest; the next Add begins another one.
    Digest Final();

private:
    void Begin();

    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> context_;
};

Digest DigestOfBytes(const void* data, std::size_t length);

}  // namespace inspect
