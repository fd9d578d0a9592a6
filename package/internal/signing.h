// Keys and signatures.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/digest.h"

namespace kavro::package {

using DigestBytes = std::vector<unsigned char>;

// That of an RSA key of 16384 bits, the longest that OpenSSL uses.
inline constexpr std::size_t kMostSignatureBytes = 2048;

// The digest of all that was added. Once; throws Failure when OpenSSL failed.
DigestBytes finished(Digest& digest);

// The digest of a whole file. Throws Failure when it cannot be read.
DigestBytes fileDigest(const std::filesystem::path& file, Digest::Kind kind);

// A private key with which components are signed: RSA or EC.
class PrivateKey {
  public:
    // Reads a PEM file, which may be encrypted with the passphrase that is the first line of another file. Throws Failure
    // (refused) for anything else.
    explicit PrivateKey(const std::filesystem::path& file,
                        const std::optional<std::filesystem::path>& passphraseFile = std::nullopt);
    ~PrivateKey();
    PrivateKey(PrivateKey&& other) noexcept;
    PrivateKey& operator=(PrivateKey&& other) noexcept;

    // The public key that belongs to it, in PEM.
    std::string publicKeyPem() const;

    // What is known of it for people: "RSA, 2048 bits".
    std::string description() const;

    // The signature over a SHA-256 digest, as `openssl dgst -sha256 -verify` checks it.
    std::string sign(const DigestBytes& sha256) const;

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
    // As text.
    std::string pem() const;
    // SHA-256 of its DER form, by which people compare keys: lower-case hexadecimal digits.
    std::string digest() const;
    bool isSameAs(const PublicKey& other) const;
    // Whether the signature is one over this SHA-256 digest, as `openssl dgst -sha256 -verify` checks it.
    bool verifies(const DigestBytes& sha256, const std::string& signature) const;

  private:
    struct Impl;
    explicit PublicKey(std::unique_ptr<Impl> key);
    std::unique_ptr<Impl> impl;
};

}  // namespace kavro::package
