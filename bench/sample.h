// Measurements as they are reported: a line of JSON for each on standard output, which bench.sh collects.
//
//     {"name": "cpFile", "ours": 58.1, "theirs": 71.4}     ms of ours and of what it is measured against
//     {"name": "give-up", "ours": 2.3}
#pragma once

#include <functional>
#include <map>
#include <string>

namespace bench {

void report(const std::string& name, double ours);
void report(const std::string& name, double ours, double theirs);
// With parts of it: what is done in which time.
void report(const std::string& name, double ours, const std::map<std::string, double>& parts);

// How long the work takes, in ms. Ends the program when it fails.
double timeOf(const std::string& name, const std::function<bool()>& work);
// The same for a command line, with the start of its program.
double timeOfCommand(const std::string& command);

// Measures both, one after the other, in turns: now the one is first, now the other. `prepare` comes before each.
void comparePairs(const std::string& name, int rounds, const std::function<void()>& prepare,
                  const std::function<bool()>& ours, const std::string& theirs);

// Keeps standard output for the samples: what commands say goes nowhere. Call it first.
void keepStandardOutput();

[[noreturn]] void fail(const std::string& what);

}  // namespace bench
