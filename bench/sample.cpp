#include "bench/sample.h"

#include <fcntl.h>
#include <json/json.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "bench/timeline.h"

namespace bench {
namespace {

FILE* output = stdout;

void write(const Json::Value& sample) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 9;
    std::fprintf(output, "%s\n", Json::writeString(builder, sample).c_str());
    std::fflush(output);
}

Json::Value sampleOf(const std::string& name, double ours) {
    Json::Value sample;
    sample["name"] = name;
    sample["ours"] = ours;
    return sample;
}

}  // namespace

void report(const std::string& name, double ours) {
    write(sampleOf(name, ours));
}

void report(const std::string& name, double ours, double theirs) {
    Json::Value sample = sampleOf(name, ours);
    sample["theirs"] = theirs;
    write(sample);
}

void report(const std::string& name, double ours, const std::map<std::string, double>& parts) {
    Json::Value sample = sampleOf(name, ours);
    for (const auto& [part, value] : parts) {
        sample["parts"][part] = value;
    }
    write(sample);
}

double timeOf(const std::string& name, const std::function<bool()>& work) {
    const double start = nowMs();
    if (!work()) {
        fail(name);
    }
    return nowMs() - start;
}

double timeOfCommand(const std::string& command) {
    return timeOf(command, [&] {
        const char* const arguments[] = {"sh", "-c", command.c_str(), nullptr};
        pid_t child = 0;
        int status = -1;
        return posix_spawn(&child, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(arguments),
                           environ) == 0 &&
               waitpid(child, &status, 0) == child && status == 0;
    });
}

void comparePairs(const std::string& name, int rounds, const std::function<void()>& prepare,
                  const std::function<bool()>& ours, const std::string& theirs) {
    for (int round = 0; round < rounds; ++round) {
        double oursMs = 0;
        double theirsMs = 0;
        for (int turn = 0; turn < 2; ++turn) {
            prepare();
            if ((round + turn) % 2 == 0) {
                oursMs = timeOf(name, ours);
            } else {
                theirsMs = timeOfCommand(theirs);
            }
        }
        report(name, oursMs, theirsMs);
    }
}

void keepStandardOutput() {
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    output = fdopen(kept, "we");
    if (output == nullptr || dup2(nowhere, STDOUT_FILENO) < 0) {
        fail("standard output");
    }
}

void fail(const std::string& what) {
    std::fprintf(stderr, "bench: failed: %s\n", what.c_str());
    std::exit(1);
}

}  // namespace bench
