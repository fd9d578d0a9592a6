// Keys, signatures and digests: everything of upgradectl that needs OpenSSL.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace upgradectl {

enum class Digest { kMd5, kSha256 };

// A digest of bytes that come piece by piece.
class DigestStream {
  public:
    explicit DigestStream(Digest digest);
    ~DigestStream();
    DigestStream(DigestStream&& other) noexcept;
    DigestStream& operator=(DigestStream&& other) noexcept;

    // Does not throw: finish() tells a failure.
    void update(const void* data, std::size_t size);
    // The digest's bytes. Once; throws ToolError when OpenSSL failed.
    std::string finish();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// Lower-case hexadecimal digits.
std::string hexText(const std::string& bytes);

// The digest of a whole file in lower-case hexadecimal digits. Throws ToolError when it cannot be read.
std::string fileDigest(const std::filesystem::path& file, Digest digest);

// A private key with which components are signed: RSA or EC.
class PrivateKey {
  public:
    // Reads an unencrypted PEM file. Throws ToolError (refused) for anything else.
    explicit PrivateKey(const std::filesystem::path& file);
    ~PrivateKey();
    PrivateKey(const PrivateKey&) = delete;
    PrivateKey& operator=(const PrivateKey&) = delete;

    // The public key that belongs to it, in PEM.
    std::string publicKeyPem() const;

    // What is known of it for people: "RSA, 2048 bits".
    std::string description() const;

    // The signature over the SHA-256 digest of a file, as `openssl dgst -sha256 -verify` checks it. Throws
    // ToolError when the file cannot be read.
    std::string sign(const std::filesystem::path& file) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// A public key that checks signatures: RSA or EC.
class PublicKey {
  public:
    // Reads PEM text, as `openssl pkey -pubout` writes it. Nothing for anything else; fault then completes a sentence
    // that begins with where the text was found: "holds no public key in PEM format".
    static std::optional<PublicKey> parse(const std::string& pem, std::string& fault);

    ~PublicKey();
    PublicKey(PublicKey&& other) noexcept;
    PublicKey& operator=(PublicKey&& other) noexcept;

    // What is known of it for people: "RSA, 2048 bits".
    std::string description() const;
    // SHA-256 of its DER form, by which people compare keys: lower-case hexadecimal digits.
    std::string digest() const;
    bool isSameAs(const PublicKey& other) const;
    // Whether the signature is one over this SHA-256 digest (32 bytes), as `openssl dgst -sha256 -verify` checks it.
    bool verifies(const std::string& sha256, const std::string& signature) const;

  private:
    struct Impl;
    explicit PublicKey(std::unique_ptr<Impl> key);
    std::unique_ptr<Impl> impl;
};

}  // namespace upgradectl
