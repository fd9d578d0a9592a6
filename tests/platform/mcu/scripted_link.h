// A microcontroller in memory: a byte link that answers each request as the test has it.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/mcu/byte_link.h"

namespace testsupport {

// Shared by the test and the link that the code under test owns.
struct Script {
    // What comes back to the request: blocks of bytes as they are on the wire. An empty one is a wait in which
    // nothing arrives.
    std::function<std::vector<kavro::Bytes>(const kavro::Frame&)> answer;

    std::vector<kavro::Frame> requests;  // so far, repeated ones included
    std::deque<kavro::Bytes> arriving;
    kavro::Bytes noise;  // arrives whenever nothing else does
    bool broken = false;

    [[nodiscard]] std::vector<kavro::Bytes> messages() const {
        std::vector<kavro::Bytes> result;
        result.reserve(requests.size());
        for (const kavro::Frame& request : requests) {
            result.push_back(request.message);
        }
        return result;
    }
};

class ScriptedLink : public kavro::ByteLink {
  public:
    explicit ScriptedLink(std::shared_ptr<Script> theScript) : script(std::move(theScript)) {}

    bool send(const kavro::Bytes& bytes, std::string& error) override {
        for (const std::uint8_t byte : bytes) {
            if (const std::optional<kavro::Frame> frame = reader.take(byte)) {
                script->requests.push_back(*frame);
                const std::vector<kavro::Bytes> blocks = script->answer(*frame);
                script->arriving.insert(script->arriving.end(), blocks.begin(), blocks.end());
            }
        }
        error = script->broken ? "the link is broken" : "";
        return !script->broken;
    }

    std::optional<kavro::Bytes> receive(int timeoutMs, std::string& error) override {
        (void)timeoutMs;
        if (script->broken) {
            error = "the link is broken";
            return std::nullopt;
        }
        if (script->arriving.empty()) {
            return script->noise;
        }
        kavro::Bytes block = script->arriving.front();
        script->arriving.pop_front();
        return block;
    }

  private:
    const std::shared_ptr<Script> script;
    kavro::FrameReader reader;
};

// The frame of an answer.
inline kavro::Bytes wire(std::uint8_t sequence, const kavro::Bytes& message) {
    return kavro::encodeFrame({sequence, message});
}

inline kavro::Bytes refusal(const kavro::Bytes& request, std::uint8_t code) {
    return {0x7F, request[0], code};
}

}  // namespace testsupport
