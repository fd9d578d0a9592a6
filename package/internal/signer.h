// Who signs the files of a package: a private key in a file, or a command that has access to one elsewhere.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "base/raw_file.h"
#include "package/internal/component_files.h"
#include "package/internal/signing.h"
#include "package/pack.h"

namespace kavro::package {

class Signer {
  public:
    virtual ~Signer() = default;

    // The public key that the signatures are checked by, in PEM.
    virtual std::string publicKeyPem() const = 0;
    // What is known of it for people: "RSA, 2048 bits".
    virtual std::string keyDescription() const = 0;

    // The signature over the SHA-256 digest of a component, as `openssl dgst -sha256 -verify` checks it. Temporary files go
    // into the directory. Throws Failure.
    virtual std::string sign(const Component& component, const DigestBytes& sha256,
                             const std::filesystem::path& directory) = 0;
};

// The one that a request asks for. keepGoing is asked while a command is awaited, and must outlive the signer. Throws Failure:
// usage for what contradicts itself, refused for a key.
std::unique_ptr<Signer> makeSigner(const PackRequest& request, const KeepGoing& keepGoing);

}  // namespace kavro::package
