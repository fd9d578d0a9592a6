#include "package/internal/signing.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/errno_text.h"
#include "base/failure.h"
#include "base/file_io.h"
#include "base/hex_digit.h"

namespace kavro::package {

namespace {

template <auto release>
struct Release {
    template <typename T>
    void operator()(T* object) const {
        release(object);
    }
};
using Bio = std::unique_ptr<BIO, Release<BIO_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

// The oldest reason that OpenSSL has queued, which is the one nearest to the cause; clears the queue.
std::string openSslReason() {
    const unsigned long error = ERR_get_error();
    ERR_clear_error();
    const char* reason = ERR_reason_error_string(error);
    return reason != nullptr ? reason : "unknown reason";
}

Failure openSslFailure(const std::string& step) {
    return {ErrorCode::kOther, "OpenSSL cannot " + step + " (" + openSslReason() + ")",
            "check the installation of OpenSSL 3 on this machine"};
}

Failure unreadable(const std::filesystem::path& file) {
    return {ErrorCode::kRefused, "'" + file.string() + "' cannot be read",
            "check that it exists and is readable"};
}

Failure badKey(const std::filesystem::path& file, const std::string& fault, const std::string& next) {
    return {ErrorCode::kRefused, "the key '" + file.string() + "' " + fault, next};
}

struct Passphrase {
    std::optional<std::string> text;
    bool wanted = false;
};

// Never asks at the terminal: pack runs in build scripts.
int givePassphrase(char* buffer, int size, int /*writing*/, void* data) {
    auto& passphrase = *static_cast<Passphrase*>(data);
    passphrase.wanted = true;
    if (!passphrase.text || passphrase.text->size() > static_cast<std::size_t>(size)) {
        return -1;
    }
    passphrase.text->copy(buffer, passphrase.text->size());
    return static_cast<int>(passphrase.text->size());
}

std::string readPassphrase(const std::filesystem::path& file) {
    constexpr std::size_t kMostBytes = 1024;
    std::string text;
    if (!readBeginning(file.string(), kMostBytes, text)) {
        throw Failure(ErrorCode::kRefused,
                      "the passphrase file '" + file.string() + "' cannot be read: " + reasonOf(errno),
                      "give a readable file whose first line is the passphrase");
    }
    text.erase(std::min(text.find_first_of("\r\n"), text.size()));
    return text;
}

bool isSupported(const EVP_PKEY* key) {
    const int type = EVP_PKEY_get_base_id(key);
    return type == EVP_PKEY_RSA || type == EVP_PKEY_EC;
}

std::string describe(const EVP_PKEY* key) {
    return std::string(EVP_PKEY_get0_type_name(key)) + ", " + std::to_string(EVP_PKEY_get_bits(key)) +
           " bits";
}

std::string writtenPublicKey(EVP_PKEY* key) {
    const Bio bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr || PEM_write_bio_PUBKEY(bio.get(), key) != 1) {
        throw openSslFailure("write the public key");
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

Key loadKey(const std::filesystem::path& file, const std::optional<std::filesystem::path>& passphraseFile) {
    if (access(file.c_str(), R_OK) != 0) {
        throw badKey(file, "cannot be read: " + reasonOf(errno), "give the file of the private key");
    }
    const Bio bio(BIO_new_file(file.c_str(), "rbe"));
    ERR_clear_error();
    if (bio == nullptr) {
        throw unreadable(file);
    }
    Passphrase passphrase;
    if (passphraseFile) {
        passphrase.text = readPassphrase(*passphraseFile);
    }
    Key key(PEM_read_bio_PrivateKey(bio.get(), nullptr, givePassphrase, &passphrase));
    ERR_clear_error();
    if (passphrase.text) {
        OPENSSL_cleanse(passphrase.text->data(), passphrase.text->size());
    }
    if (passphrase.wanted && !passphraseFile) {
        throw badKey(file, "is encrypted",
                     "give --passphrase-file, or decrypt it: openssl pkey -in KEY -out PLAINKEY");
    }
    if (passphrase.wanted && key == nullptr) {
        throw badKey(file, "cannot be decrypted with the passphrase of '" + passphraseFile->string() + "'",
                     "give the passphrase as the first line of that file");
    }
    if (key == nullptr) {
        throw badKey(file, "holds no private key in PEM format", "give a file made by: openssl genpkey");
    }
    if (!isSupported(key.get())) {
        throw badKey(file, "is neither an RSA nor an EC key",
                     "give one that 'openssl dgst -sha256 -sign' can use: RSA or EC");
    }
    return key;
}

// Ready for `begin`, with SHA-256 as the digest; null on failure.
KeyContext contextOf(const Key& key, int (*begin)(EVP_PKEY_CTX*)) {
    KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    if (context != nullptr &&
        (begin(context.get()) != 1 || EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) != 1)) {
        context.reset();
    }
    return context;
}

}  // namespace

DigestBytes finished(Digest& digest) {
    DigestBytes bytes = digest.finish();
    if (bytes.empty()) {
        throw openSslFailure("compute a digest");
    }
    return bytes;
}

DigestBytes fileDigest(const std::filesystem::path& file, Digest::Kind kind) {
    Digest digest(kind);
    if (!digest.addRest(openToRead(file.string()).get())) {
        throw unreadable(file);
    }
    return finished(digest);
}

struct PrivateKey::Impl {
    Key key;
};

PrivateKey::PrivateKey(const std::filesystem::path& file,
                       const std::optional<std::filesystem::path>& passphraseFile)
    : impl(new Impl{loadKey(file, passphraseFile)}) {}

PrivateKey::~PrivateKey() = default;
PrivateKey::PrivateKey(PrivateKey&& other) noexcept = default;
PrivateKey& PrivateKey::operator=(PrivateKey&& other) noexcept = default;

std::string PrivateKey::publicKeyPem() const {
    return writtenPublicKey(impl->key.get());
}

std::string PrivateKey::description() const {
    return describe(impl->key.get());
}

std::string PrivateKey::sign(const DigestBytes& sha256) const {
    const KeyContext context = contextOf(impl->key, EVP_PKEY_sign_init);
    if (context == nullptr) {
        throw openSslFailure("sign");
    }
    const auto signInto = [&](unsigned char* signature, std::size_t& length) {
        if (EVP_PKEY_sign(context.get(), signature, &length, sha256.data(), sha256.size()) != 1) {
            throw openSslFailure("sign");
        }
    };
    std::size_t length = 0;  // the most that it may be; then what it is
    signInto(nullptr, length);
    std::string signature(length, '\0');
    signInto(reinterpret_cast<unsigned char*>(signature.data()), length);
    signature.resize(length);
    return signature;
}

struct PublicKey::Impl {
    Key key;
};

std::optional<PublicKey> PublicKey::parse(const std::string& pem, std::string& fault) {
    if (pem.find("PRIVATE KEY-----") != std::string::npos) {
        fault = "holds a private key where a public one belongs";
        return std::nullopt;
    }
    const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    Passphrase passphrase;
    Key key(PEM_read_bio_PUBKEY(bio.get(), nullptr, givePassphrase, &passphrase));
    ERR_clear_error();
    if (key == nullptr) {
        fault = "holds no public key in PEM format";
        return std::nullopt;
    }
    if (!isSupported(key.get())) {
        fault = "holds a key that is neither RSA nor EC";
        return std::nullopt;
    }
    return PublicKey(std::unique_ptr<Impl>(new Impl{std::move(key)}));
}

PublicKey::PublicKey(std::unique_ptr<Impl> key) : impl(std::move(key)) {}
PublicKey::~PublicKey() = default;
PublicKey::PublicKey(PublicKey&& other) noexcept = default;
PublicKey& PublicKey::operator=(PublicKey&& other) noexcept = default;

std::string PublicKey::description() const {
    return describe(impl->key.get());
}

std::string PublicKey::pem() const {
    return writtenPublicKey(impl->key.get());
}

std::string PublicKey::digest() const {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(impl->key.get(), &der);
    if (length < 0) {
        throw openSslFailure("write the public key");
    }
    Digest digest(Digest::Kind::kSha256);
    digest.add(der, static_cast<std::size_t>(length));
    OPENSSL_free(der);
    return hexText(finished(digest));
}

bool PublicKey::isSameAs(const PublicKey& other) const {
    const bool same = EVP_PKEY_eq(impl->key.get(), other.impl->key.get()) == 1;
    ERR_clear_error();
    return same;
}

bool PublicKey::verifies(const DigestBytes& sha256, const std::string& signature) const {
    const KeyContext context = contextOf(impl->key, EVP_PKEY_verify_init);
    if (context == nullptr) {
        throw openSslFailure("check a signature");
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(signature.data());
    const bool good =
        EVP_PKEY_verify(context.get(), bytes, signature.size(), sha256.data(), sha256.size()) == 1;
    ERR_clear_error();
    return good;
}

}  // namespace kavro::package
