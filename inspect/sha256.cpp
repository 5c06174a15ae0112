#include "inspect/sha256.h"
#include <openssl/evp.h>
#include "inspect/volume_view.h"

namespace inspect {

Sha256::Sha256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    Begin();
}

void Sha256::Begin() {
    if (context_ == nullptr || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1)
        throw Error("SHA-256 is not available");
}

void Sha256::Add(const void* data, std::size_t length) {
    if (EVP_DigestUpdate(context_.get(), data, length) != 1) throw Error("SHA-256 failed");
}

Digest Sha256::Final() {
    Digest digest;
    if (EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1) throw Error("SHA-256 failed");
    Begin();
    return digest;
}

Digest DigestOfBytes(const void* data, std::size_t length) {
    Sha256 hash;
    hash.Add(data, length);
    return hash.Final();
}

}  // namespace inspect
