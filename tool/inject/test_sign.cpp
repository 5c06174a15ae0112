#include "tool/inject/test_sign.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>
#include "machine/partition/partition_format.h"
#include "posix/file_io.h"
#include "tool/error.h"
#include "tool/inject/certificate_store.h"
#include "tool/inject/work_folder.h"

namespace tool {
namespace {

constexpr int kKeyBits = 3072;
constexpr long kTenYears = 10L * 365 * 24 * 3600;
constexpr char kCertificateNote[] = "InjectedCertificates";  // their keys in the hive SOFTWARE
constexpr std::size_t kPeOffset = 60;
constexpr std::size_t kOptionalHeader = 24;      // behind the signature "PE" and the file header
constexpr std::size_t kSecurityDirectory = 144;  // its entry in the optional header of a 64-bit image

struct FreeAny {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
template <class Thing>
using Owned = std::unique_ptr<Thing, FreeAny>;

void Need(bool made) {
    if (!made) throw Error("the certificate cannot be made");
}

void AddExtension(X509* certificate, int kind, const char* text) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, kind, text));
    Need(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1);
}

void Name(X509* certificate) {
    X509_NAME* name = X509_get_subject_name(certificate);
    const auto* text = reinterpret_cast<const unsigned char*>("Kvr test");
    Need(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0) == 1 &&
         X509_set_issuer_name(certificate, name) == 1);
}

Owned<X509> MakeX509(EVP_PKEY* key) {
    Owned<X509> certificate(X509_new());
    std::uint64_t serial = 0;
    Need(certificate != nullptr && RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1);
    Need(X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
         ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial >> 1) == 1);
    Need(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -24L * 3600) != nullptr &&
         X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kTenYears) != nullptr);
    Name(certificate.get());
    Need(X509_set_pubkey(certificate.get(), key) == 1);
    AddExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
    AddExtension(certificate.get(), NID_key_usage, "critical,digitalSignature");
    AddExtension(certificate.get(), NID_ext_key_usage, "codeSigning");
    Need(X509_sign(certificate.get(), key, EVP_sha256()) > 0);
    return certificate;
}

std::vector<std::uint8_t> ReadDer(const std::string& pemFile) {
    const Owned<BIO> file(BIO_new_file(pemFile.c_str(), "r"));
    const Owned<X509> certificate(file == nullptr ? nullptr
                                                  : PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
    if (certificate == nullptr) throw Error(pemFile + " holds no certificate in PEM form");
    std::vector<std::uint8_t> der(static_cast<std::size_t>(std::max(i2d_X509(certificate.get(), nullptr), 0)));
    unsigned char* at = der.data();
    Need(i2d_X509(certificate.get(), &at) > 0);
    return der;
}

void AddProperty(std::vector<std::uint8_t>& blob, std::uint32_t id, const std::uint8_t* bytes,
                 std::size_t length) {
    const CertificateProperty head{id, kCertificateEncoding, static_cast<std::uint32_t>(length)};
    const auto* first = reinterpret_cast<const std::uint8_t*>(&head);
    blob.insert(blob.end(), first, first + sizeof head);
    blob.insert(blob.end(), bytes, bytes + length);
}

}  // namespace

bool IsSigned(const std::vector<std::uint8_t>& image) {
    using machine::table::Get32;
    if (image.size() < kPeOffset + 4) return false;
    const std::size_t entry = std::size_t{Get32(&image[kPeOffset])} + kOptionalHeader + kSecurityDirectory;
    if (entry + 8 > image.size()) return false;
    const std::uint64_t offset = Get32(&image[entry]), length = Get32(&image[entry + 4]);
    return offset != 0 && length != 0 && offset + length <= image.size();
}

void MakeCertificate(const std::string& pemFile) {
    const Owned<EVP_PKEY> key(EVP_RSA_gen(kKeyBits));
    Need(key != nullptr);
    const Owned<X509> certificate = MakeX509(key.get());
    const posix::File made(open(pemFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!made.IsOpen()) throw Error("cannot make " + pemFile + ": " + std::strerror(errno));
    const Owned<BIO> file(BIO_new_fd(made.Get(), BIO_NOCLOSE));
    if (file == nullptr || PEM_write_bio_X509(file.get(), certificate.get()) != 1 ||
        PEM_write_bio_PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        throw Error("cannot write " + pemFile);
}

std::vector<std::uint8_t> Sign(const std::vector<std::uint8_t>& image, const std::string& pemFile) {
    const WorkFolder folder;
    const std::string from = folder.File("kvr64.sys"), to = folder.File("signed.sys");
    WriteHostFile(from, image);
    RunHostTool("osslsigncode", "osslsigncode",
                {"sign", "-h", "sha256", "-ph", "-certs", pemFile, "-key", pemFile, "-n", "Kvr", "-in", from,
                 "-out", to});
    return ReadHostFile(to);
}

StoredCertificate StoreForm(const std::vector<std::uint8_t>& der) {
    StoredCertificate stored;
    std::uint8_t thumbprint[SHA_DIGEST_LENGTH];
    Need(EVP_Digest(der.data(), der.size(), thumbprint, nullptr, EVP_sha1(), nullptr) == 1);
    for (const std::uint8_t byte : thumbprint) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", byte);
        stored.key += digits;
    }
    AddProperty(stored.blob, kPropertySha1, thumbprint, sizeof thumbprint);
    AddProperty(stored.blob, kPropertyCertificate, der.data(), der.size());
    return stored;
}

void Trust(Installation& windows, const std::string& pemFile, Report& report) {
    const StoredCertificate stored = StoreForm(ReadDer(pemFile));
    // One that was there before stays as it is, and is not taken out again.
    std::vector<std::string> added;
    for (const char* store : kMachineStores) {
        const std::string key = std::string(store) + "\\" + stored.key;
        if (windows.Software().HasKey(key)) continue;
        windows.Software().Set(key, kCertificateValue, Binary(stored.blob));
        added.push_back(key);
    }
    AddToNote(windows, kCertificateNote, added);
    report.push_back("certificate " + stored.key + " trusted by the machine");
}

void Distrust(Installation& windows, Report& report) {
    for (const std::string& key : Noted(windows, kCertificateNote)) {
        const bool inStore = std::any_of(std::begin(kMachineStores), std::end(kMachineStores), [&](auto store) {
            return key.starts_with(std::string(store) + "\\");
        });
        if (!inStore) continue;
        windows.Software().DeleteKey(key);
        report.push_back("no longer trusted: " + key);
    }
}

}  // namespace tool
