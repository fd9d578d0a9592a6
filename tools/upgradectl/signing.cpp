#include "tools/upgradectl/signing.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <system_error>
#include <utility>

#include "tools/upgradectl/tool_error.h"

namespace upgradectl {

namespace {

constexpr std::size_t kBlockBytes = 65536;

template <auto release>
struct Release {
    template <typename T>
    void operator()(T* object) const {
        release(object);
    }
};
using Bio = std::unique_ptr<BIO, Release<BIO_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

// The oldest reason that OpenSSL has queued, which is the one nearest to the cause; clears the queue.
std::string openSslReason() {
    const unsigned long error = ERR_get_error();
    ERR_clear_error();
    const char* reason = ERR_reason_error_string(error);
    return reason != nullptr ? reason : "unknown reason";
}

ToolError openSslFailure(const std::string& step) {
    return {ExitCode::kOther, "OpenSSL cannot " + step + " (" + openSslReason() + ")",
            "check the installation of OpenSSL 3 on this machine"};
}

ToolError unreadable(const std::filesystem::path& file) {
    return {ExitCode::kRefused, "'" + file.string() + "' cannot be read",
            "check that it exists and is readable"};
}

ToolError badKey(const std::filesystem::path& file, const std::string& fault, const std::string& next) {
    return {ExitCode::kRefused, "the key '" + file.string() + "' " + fault, next};
}

Bio openForReading(const std::filesystem::path& file) {
    Bio bio(BIO_new_file(file.c_str(), "rbe"));
    ERR_clear_error();
    if (bio == nullptr) {
        throw unreadable(file);
    }
    return bio;
}

// take returns what the EVP update functions return: 1 on success.
void forEachBlock(const std::filesystem::path& file,
                  const std::function<int(const void*, std::size_t)>& take) {
    const Bio bio = openForReading(file);
    std::array<std::byte, kBlockBytes> block;
    for (;;) {
        const int count = BIO_read(bio.get(), block.data(), static_cast<int>(block.size()));
        if (count < 0) {
            throw unreadable(file);
        }
        if (count == 0) {
            return;
        }
        if (take(block.data(), static_cast<std::size_t>(count)) != 1) {
            throw openSslFailure("digest '" + file.string() + "'");
        }
    }
}

const unsigned char* bytesOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// Never asks at the terminal: pack runs in build scripts. Notes that a password was wanted.
int refusePassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* wanted) {
    *static_cast<bool*>(wanted) = true;
    return -1;
}

bool isSupported(const EVP_PKEY* key) {
    const int type = EVP_PKEY_get_base_id(key);
    return type == EVP_PKEY_RSA || type == EVP_PKEY_EC;
}

std::string describe(const EVP_PKEY* key) {
    return std::string(EVP_PKEY_get0_type_name(key)) + ", " + std::to_string(EVP_PKEY_get_bits(key)) +
           " bits";
}

Key loadKey(const std::filesystem::path& file) {
    if (access(file.c_str(), R_OK) != 0) {
        const std::string reason = std::error_code(errno, std::generic_category()).message();
        throw badKey(file, "cannot be read: " + reason, "give the file of the private key");
    }
    const Bio bio = openForReading(file);
    bool passwordWanted = false;
    Key key(PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassword, &passwordWanted));
    ERR_clear_error();
    if (passwordWanted) {
        throw badKey(file, "is encrypted", "decrypt it first: openssl pkey -in KEY -out PLAINKEY");
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

}  // namespace

struct DigestStream::Impl {
    DigestContext context;
    bool valid;
};

DigestStream::DigestStream(Digest digest) : impl(new Impl{DigestContext(EVP_MD_CTX_new()), false}) {
    const EVP_MD* algorithm = digest == Digest::kMd5 ? EVP_md5() : EVP_sha256();
    impl->valid = impl->context != nullptr && EVP_DigestInit_ex(impl->context.get(), algorithm, nullptr) == 1;
}

DigestStream::~DigestStream() = default;
DigestStream::DigestStream(DigestStream&& other) noexcept = default;
DigestStream& DigestStream::operator=(DigestStream&& other) noexcept = default;

void DigestStream::update(const void* data, std::size_t size) {
    impl->valid = impl->valid && EVP_DigestUpdate(impl->context.get(), data, size) == 1;
}

std::string DigestStream::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
    unsigned int length = 0;
    if (!impl->valid || EVP_DigestFinal_ex(impl->context.get(), value.data(), &length) != 1) {
        throw openSslFailure("compute a digest");
    }
    return {value.begin(), value.begin() + length};
}

std::string hexText(const std::string& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        text += {kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    }
    return text;
}

std::string fileDigest(const std::filesystem::path& file, Digest digest) {
    DigestStream stream(digest);
    forEachBlock(file, [&](const void* data, std::size_t count) {
        stream.update(data, count);
        return 1;
    });
    return hexText(stream.finish());
}

struct PrivateKey::Impl {
    Key key;
};

PrivateKey::PrivateKey(const std::filesystem::path& file) : impl(new Impl{loadKey(file)}) {}

PrivateKey::~PrivateKey() = default;

std::string PrivateKey::publicKeyPem() const {
    const Bio bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr || PEM_write_bio_PUBKEY(bio.get(), impl->key.get()) != 1) {
        throw openSslFailure("write the public key");
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

std::string PrivateKey::description() const {
    return describe(impl->key.get());
}

std::string PrivateKey::sign(const std::filesystem::path& file) const {
    const DigestContext context(EVP_MD_CTX_new());
    if (context == nullptr ||
        EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, impl->key.get()) != 1) {
        throw openSslFailure("sign");
    }
    forEachBlock(file, [&](const void* data, std::size_t count) {
        return EVP_DigestSignUpdate(context.get(), data, count);
    });

    std::size_t length = 0;
    if (EVP_DigestSignFinal(context.get(), nullptr, &length) != 1) {
        throw openSslFailure("sign '" + file.string() + "'");
    }
    std::string signature(length, '\0');
    if (EVP_DigestSignFinal(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length) !=
        1) {
        throw openSslFailure("sign '" + file.string() + "'");
    }
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
    bool passwordWanted = false;
    Key key(PEM_read_bio_PUBKEY(bio.get(), nullptr, refusePassword, &passwordWanted));
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

std::string PublicKey::digest() const {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(impl->key.get(), &der);
    if (length < 0) {
        throw openSslFailure("write the public key");
    }
    DigestStream stream(Digest::kSha256);
    stream.update(der, static_cast<std::size_t>(length));
    OPENSSL_free(der);
    return hexText(stream.finish());
}

bool PublicKey::isSameAs(const PublicKey& other) const {
    const bool same = EVP_PKEY_eq(impl->key.get(), other.impl->key.get()) == 1;
    ERR_clear_error();
    return same;
}

bool PublicKey::verifies(const std::string& sha256, const std::string& signature) const {
    const KeyContext context(EVP_PKEY_CTX_new(impl->key.get(), nullptr));
    if (context == nullptr || EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) != 1) {
        throw openSslFailure("check a signature");
    }
    const bool good = EVP_PKEY_verify(context.get(), bytesOf(signature), signature.size(), bytesOf(sha256),
                                      sha256.size()) == 1;
    ERR_clear_error();
    return good;
}

}  // namespace upgradectl
