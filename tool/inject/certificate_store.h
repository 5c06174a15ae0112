// How Windows keeps a certificate in the registry: a key named by its thumbprint with one binary value, a row
// of properties. All integers are little-endian.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// The head of a property; its bytes follow, then the next head.
struct CertificateProperty {
    std::uint32_t id;
    std::uint32_t encoding;  // always kCertificateEncoding
    std::uint32_t length;    // of the bytes behind this head
};
static_assert(sizeof(CertificateProperty) == 12);

inline constexpr std::uint32_t kCertificateEncoding = 1;
inline constexpr std::uint32_t kPropertySha1 = 3;          // the thumbprint, 20 bytes
inline constexpr std::uint32_t kPropertyCertificate = 32;  // the certificate itself, DER; the last of the row

inline constexpr char kCertificateValue[] = "Blob";
// Below the hive SOFTWARE, and below it a key for each certificate: 40 hexadecimal digits, capital letters.
inline constexpr const char* kMachineStores[] = {
    "Microsoft\\SystemCertificates\\ROOT\\Certificates",
    "Microsoft\\SystemCertificates\\TrustedPublisher\\Certificates"};

struct StoredCertificate {
    std::string key;  // its name in a store
    std::vector<std::uint8_t> blob;
};

// `der`: the certificate. Throws Error without memory.
StoredCertificate StoreForm(const std::vector<std::uint8_t>& der);

}  // namespace tool
