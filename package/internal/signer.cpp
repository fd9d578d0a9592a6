#include "package/internal/signer.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "base/child_process.h"
#include "base/errno_text.h"
#include "base/failure.h"
#include "base/file_io.h"
#include "base/hex_digit.h"
#include "package/internal/given_up.h"
#include "package/internal/staging.h"

namespace kavro::package {

namespace {

namespace fs = std::filesystem;

class KeySigner : public Signer {
  public:
    explicit KeySigner(PrivateKey privateKey) : key(std::move(privateKey)) {}

    std::string publicKeyPem() const override { return key.publicKeyPem(); }
    std::string keyDescription() const override { return key.description(); }
    std::string sign(const Component& /*component*/, const DigestBytes& sha256,
                     const fs::path& /*directory*/) override {
        return key.sign(sha256);
    }

  private:
    const PrivateKey key;
};

// Called with the file of the digest, that for the signature, what the variables are to hold, and the command.
constexpr const char* kScript =
    "KAVRO_SIGN_NAME=$3 KAVRO_SIGN_FILE=$4 KAVRO_SIGN_SHA256=$5; "
    "export KAVRO_SIGN_NAME KAVRO_SIGN_FILE KAVRO_SIGN_SHA256; "
    "exec /bin/sh -c \"$6\" <\"$1\" >\"$2\"";

class CommandSigner : public Signer {
  public:
    CommandSigner(std::string signCommand, PublicKey publicKey, const KeepGoing& goOn)
        : command(std::move(signCommand)), key(std::move(publicKey)), keepGoing(goOn) {}

    std::string publicKeyPem() const override { return key.pem(); }
    std::string keyDescription() const override { return key.description(); }
    std::string sign(const Component& component, const DigestBytes& sha256,
                     const fs::path& directory) override {
        const fs::path digest = directory / "digest";
        const fs::path output = directory / "signature";
        writeStaged(digest, std::string(sha256.begin(), sha256.end()));
        run(component, hexText(sha256), digest, output);
        std::string signature;
        if (!readBeginning(output.string(), kMostSignatureBytes + 1, signature)) {
            throw failure(component, "gave a signature that cannot be read: " + reasonOf(errno));
        }
        requireGood(component, sha256, signature);
        return signature;
    }

  private:
    static Failure failure(const Component& component, const std::string& what) {
        return {ErrorCode::kOther, "the command that signs '" + component.name + "' " + what,
                "see its message above, and try it by hand; docs/package-format.md tells what it gets"};
    }

    void run(const Component& component, const std::string& sha256, const fs::path& digest,
             const fs::path& output) const {
        const COMMON_YR::CancelHold hold;
        const std::string file = component.path.string();
        const char* const words[] = {"sh",
                                     "-c",
                                     kScript,
                                     "sh",
                                     digest.c_str(),
                                     output.c_str(),
                                     component.name.c_str(),
                                     file.c_str(),
                                     sha256.c_str(),
                                     command.c_str(),
                                     nullptr};
        ChildProcess shell;
        if (!shell.start("/bin/sh", words, -1, STDERR_FILENO)) {
            throw failure(component, "cannot be started: " + reasonOf(errno));
        }
        await(component, shell);
        if (!shell.succeeds(hold)) {
            throw failure(component, "has failed");
        }
    }

    // Somebody may have to touch a token, so there is no limit of time. A command that wants the terminal is stopped, since it
    // runs beside the one that the terminal belongs to.
    void await(const Component& component, const ChildProcess& shell) const {
        constexpr timespec kPause = {0, 10000000};
        ChildProcess::Progress progress = ChildProcess::Progress::kRuns;
        while ((progress = shell.progress()) == ChildProcess::Progress::kRuns) {
            if (keepGoing && !keepGoing()) {
                throw givenUp();
            }
            nanosleep(&kPause, nullptr);
        }
        if (progress == ChildProcess::Progress::kStopped) {
            throw failure(component, "was stopped: it cannot ask at the terminal");
        }
    }

    void requireGood(const Component& component, const DigestBytes& sha256,
                     const std::string& signature) const {
        if (signature.empty()) {
            throw failure(component, "gave no signature on its standard output");
        }
        if (signature.size() > kMostSignatureBytes) {
            throw failure(component, "gave more than the " + std::to_string(kMostSignatureBytes) +
                                         " bytes that a signature may have");
        }
        if (!key.verifies(sha256, signature)) {
            throw Failure(
                ErrorCode::kRefused,
                "the command gave a signature of '" + component.name +
                    "' that does not verify with the public key (" + key.description() + ", sha256 " +
                    key.digest() + ")",
                "let it sign with that key: RSA with PKCS#1 v1.5, EC as DER, over the SHA-256 digest");
        }
    }

    const std::string command;
    const PublicKey key;
    const KeepGoing& keepGoing;
};

Failure contradiction(const std::string& text, const std::string& next) {
    return {ErrorCode::kUsage, text, next};
}

void requireSense(const PackRequest& request) {
    const bool hasKey = !request.key.empty();
    if (request.signCommand.empty() && request.publicKey) {
        throw contradiction("a public key alone signs nothing", "give the command that signs, too");
    }
    if (!request.signCommand.empty() && hasKey == request.publicKey.has_value()) {
        throw contradiction("a command that signs needs one key that its signatures are checked by",
                            "give either the public key, or the private one");
    }
    if (request.signCommand.empty() && !hasKey) {
        throw contradiction("there is nothing to sign with", "give a private key, or a command that signs");
    }
    if (request.passphraseFile && !hasKey) {
        throw contradiction("a passphrase is for a private key",
                            "give that key, or leave the passphrase out");
    }
}

PublicKey publicKeyOf(const fs::path& file) {
    constexpr std::size_t kMostBytes = 65536;
    std::string text;
    if (!readBeginning(file.string(), kMostBytes, text)) {
        throw Failure(ErrorCode::kRefused,
                      "the public key '" + file.string() + "' cannot be read: " + reasonOf(errno),
                      "give a readable file with the public key");
    }
    std::string fault;
    std::optional<PublicKey> key = PublicKey::parse(text, fault);
    if (!key) {
        throw Failure(ErrorCode::kRefused, "the public key '" + file.string() + "' " + fault,
                      "give the public key: openssl pkey -in KEY -pubout -out FILE");
    }
    return std::move(*key);
}

}  // namespace

std::unique_ptr<Signer> makeSigner(const PackRequest& request, const KeepGoing& keepGoing) {
    requireSense(request);
    if (request.publicKey) {
        return std::make_unique<CommandSigner>(request.signCommand, publicKeyOf(*request.publicKey),
                                               keepGoing);
    }
    PrivateKey key(request.key, request.passphraseFile);
    if (request.signCommand.empty()) {
        return std::make_unique<KeySigner>(std::move(key));
    }
    std::string ignored;
    return std::make_unique<CommandSigner>(request.signCommand,
                                           *PublicKey::parse(key.publicKeyPem(), ignored), keepGoing);
}

}  // namespace kavro::package
