// Keys, signatures and digests: everything of upgradectl that needs OpenSSL.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

namespace upgradectl {

enum class Digest { kMd5, kSha256 };

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

}  // namespace upgradectl
