// Long series of runs in one process, on a twin with the real libraries:
//
//   soak giveup --seed N --runs N [--index I]   runs that are given up at moments drawn by chance
//   soak mixed --seed N --runs N                installations, failures, give-ups, activations and rollbacks in turn
//
// A line of JSON for each run; the last one is of the process's memory. Exit status 1 when a run went wrong. --index
// makes the one of the series again, ten times: which moment it was is drawn by seed and index alone.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/fault/give_up_moment.h"
#include "tests/fault/soak_device.h"
#include "tests/fault/soak_log.h"
#include "tests/support/device.h"
#include "tests/support/test_package.h"
#include "upgrade/upgrade_api.h"

namespace {

using soak::Problems;
using soak::require;

constexpr int kGivenUp = 1;
constexpr int kTooLate = 2;
constexpr int kNoPackage = -2989;

constexpr const char* kLastRuntime = "/config/upgrade_last_runtime";
constexpr const char* kMarker = "/config/upgraded";
constexpr const char* kRollbackPackage = "/firmware/rollback.pkg";
constexpr long kPackageBytes = 134217728;

struct Options {
    std::string series;
    unsigned long seed = 1;
    unsigned long runs = 100;
    std::optional<unsigned long> index;
};

struct Outcome {
    std::string text;
    Problems problems;
};

// The status of the last run is as it should be, and told once.
void requireStatus(Problems& problems, const std::string& expected) {
    const std::string found = soak::readText(kLastRuntime);
    require(problems, found == expected,
            "the last run is remembered as '" + found + "', not '" + expected + "'");
    UPG_STS_LSAT_RT_E status = UPG_STS_LAST_RT_NONE;
    require(problems, UPGRADE_get_status_last_runtime(&status) == 0,
            "the status of the last run cannot be read");
    require(problems, !soak::exists(kLastRuntime), "the status of the last run would be told twice");
}

void requireIdle(Problems& problems) {
    require(problems, UPGRADE_get_stage() == UPGRADE_STAGE_IDLE, "the stage is not IDLE after a failed run");
    require(problems, UPGRADE_get_progress() == 0, "there is progress without a run");
    require(problems, UPGRADE_get_state() == (soak::exists(kMarker) ? 2 : 0),
            "a wrong state after a failed run");
}

enum class Kind { kUpgrade, kRollback };

std::string statusName(Kind kind, bool good) {
    return std::string(kind == Kind::kRollback ? "rollback" : "upgrade") + (good ? "_success" : "_failure");
}

void requireGivenUp(Problems& problems, Kind kind, const soak::FlashState& before) {
    requireStatus(problems, statusName(kind, false));
    requireIdle(problems);
    before.requireUnchanged(problems);
}

// A run that is given up at the moment, or goes through: the request may come too late.
template <typename Run>
Outcome giveUp(const soak::Moment& moment, soak::Pace& pace, Kind kind, Run run, int* result) {
    Outcome outcome;
    const soak::FlashState before;
    int stageThen = 0;
    {
        const soak::GiverUp giver(moment, pace);
        *result = run();
        stageThen = giver.stageThen();
    }
    if (moment.change == soak::kNoChange) {
        require(outcome.problems, *result == 0, "the run failed");
        outcome.text = "done";
        return outcome;
    }
    const int answer = UPGRADE_get_giveup_sts();
    require(outcome.problems, stageThen >= 0 || *result == 0, "the run ended before the moment came");
    if (answer == kGivenUp) {
        require(outcome.problems, *result == -1, "given up, and the result is " + std::to_string(*result));
        require(outcome.problems, stageThen <= UPGRADE_STAGE_SET_FLAG_DONE,
                "given up, and flashing had begun");
        requireGivenUp(outcome.problems, kind, before);
        outcome.text = "given up";
        return outcome;
    }
    require(outcome.problems, answer == kTooLate, "the answer is " + std::to_string(answer));
    require(outcome.problems, *result == 0, "too late, and the result is " + std::to_string(*result));
    outcome.text = "too late";
    return outcome;
}

// The package waits for its activation.
void requireInstalled(Problems& problems, const soak::Package& package) {
    requireStatus(problems, statusName(Kind::kUpgrade, true));
    require(problems, UPGRADE_isUpgraded(), "nothing awaits activation");
    require(problems, UPGRADE_get_state() == 2 && UPGRADE_get_progress() == 100, "not all is done");
    require(problems, soak::sizeOf(kRollbackPackage) == kPackageBytes, "the package was not kept");
    soak::requireContent(problems, soak::otherSlot(soak::runningSlot()), package);
}

class Series {
  public:
    virtual ~Series() = default;
    virtual Outcome make(unsigned long index) = 0;
};

// Every twentieth one goes through.
class GiveUps : public Series {
  public:
    explicit GiveUps(unsigned long seriesSeed) : seed(seriesSeed) {}

    Outcome make(unsigned long index) override {
        constexpr unsigned long kWholeEach = 20;
        std::seed_seq mixed{seed, index};
        std::mt19937_64 generator(mixed);
        soak::Moment moment = soak::drawMoment(generator);
        if (index % kWholeEach == 0) {
            moment.change = soak::kNoChange;
        }
        const soak::Package& package = packages[generator() % std::size(packages)];
        int result = 0;
        Outcome outcome = giveUp(
            moment, pace, Kind::kUpgrade, [&] { return UPGRADE_main_proc_fun(package.path); }, &result);
        if (result == 0) {
            requireInstalled(outcome.problems, package);
        }
        outcome.text += ", " + moment.text();
        return outcome;
    }

  private:
    const unsigned long seed;
    soak::Pace pace;
    const soak::Package packages[2] = {soak::makePackage("one", 105, 8, 3),
                                       soak::makePackage("two", 106, 9, 4)};
};

// A package that is refused, or a device that fails, and by what it is made well again.
struct Failure {
    const char* name;
    void (*spoil)(testsupport::TestPackage& package);  // the package
    const char* missing;                               // or this file of the device
};

const Failure kFailures[] = {
    {"a wrong digest", [](testsupport::TestPackage& package) { package.flipPayloadByte(100); }, nullptr},
    {"a wrong signature", [](testsupport::TestPackage& package) { package.corruptSignature("ext4"); },
     nullptr},
    {"the signature of another", [](testsupport::TestPackage& package) { package.signWithOtherKey("Image"); },
     nullptr},
    {"a component less", [](testsupport::TestPackage& package) { package.omit("Image"); }, nullptr},
    {"a signature less", [](testsupport::TestPackage& package) { package.omit("Image.sign"); }, nullptr},
    {"an empty archive", [](testsupport::TestPackage& package) { package.emptyPayload(); }, nullptr},
    {"no archive", [](testsupport::TestPackage& package) { package.setPayload("not a tar archive"); },
     nullptr},
    {"a wrong size", [](testsupport::TestPackage& package) { package.setTotalSize(1000000); }, nullptr},
    {"no version",
     [](testsupport::TestPackage& package) {
         package.editTrailer([](testsupport::Trailer& trailer) { trailer.version = "one"; });
     },
     nullptr},
    {"no microcontroller application",
     [](testsupport::TestPackage& package) { package.setComponent("mcu_flash_app.s19", "no S-records"); },
     nullptr},
    {"too large a device tree",
     [](testsupport::TestPackage& package) {
         package.setComponent("cv22_kavro_qz7.dtb", testsupport::deviceTree(2UL << 20));
     },
     nullptr},
    {"no boot loader's partition", nullptr, "/dev/disk/by-partlabel/bootloader"},
    {"no link to the microcontroller", nullptr, "/dev/kavro-mcu/link"},
    {"no boot environment", nullptr, "/etc/kavro/fw_env.config"},
};

// In turn: every kind of run, activation and rollback, and each kind of failure.
class Mixed : public Series {
  public:
    explicit Mixed(unsigned long seriesSeed) : seed(seriesSeed) {
        for (const Failure& failure : kFailures) {
            if (failure.spoil != nullptr) {
                testsupport::TestPackage package;
                package.setVersions(1, 105, kSpoiltMcu, 3);
                failure.spoil(package);
                package.writeTo(pathOf(failure));
            }
        }
    }

    Outcome make(unsigned long index) override {
        std::seed_seq mixed{seed, index};
        std::mt19937_64 generator(mixed);
        // Each round with another package than the one before, so that each flashes both processors.
        const soak::Package& package = packages[index / kTurns % std::size(packages)];
        switch (index % kTurns) {
            case 0:
                return install(package);
            case 1:
                return giveUpInstallation(soak::drawMoment(generator), package);
            case 2:
            case 6:
                return fail(kFailures[failures++ % std::size(kFailures)]);
            case 3:
                return install(package);
            case 4:
                return activate(package);
            case 5:
                return giveUpRollback(soak::drawMoment(generator));
            default:
                return rollBack();
        }
    }

  private:
    static constexpr unsigned long kTurns = 8;
    static constexpr int kSpoiltMcu = 77;

    static std::string pathOf(const Failure& failure) {
        return "/tmp/spoilt" + std::to_string(&failure - kFailures) + ".pkg";
    }

    Outcome install(const soak::Package& package) const {
        Outcome outcome{"installed", {}};
        const int result = UPGRADE_main_proc_fun(package.path);
        require(outcome.problems, result == 0, "the installation failed with " + std::to_string(result));
        requireInstalled(outcome.problems, package);
        return outcome;
    }

    Outcome giveUpInstallation(const soak::Moment& moment, const soak::Package& package) {
        int result = 0;
        Outcome outcome = giveUp(
            moment, pace, Kind::kUpgrade, [&] { return UPGRADE_main_proc_fun(package.path); }, &result);
        if (result == 0) {
            requireInstalled(outcome.problems, package);
        }
        outcome.text += ", installation " + moment.text();
        return outcome;
    }

    Outcome fail(const Failure& failure) const {
        Outcome outcome{std::string("refused, ") + failure.name, {}};
        const std::string hidden = "/dev/kavro-mcu/hidden";
        std::string path = pathOf(failure);
        if (failure.missing != nullptr) {
            path = other.path;
            requireMove(outcome.problems, failure.missing, hidden);
        }
        const int result = UPGRADE_main_proc_fun(path);
        if (failure.missing != nullptr) {
            requireMove(outcome.problems, hidden, failure.missing);
        }
        require(outcome.problems, result == -1, "the result is " + std::to_string(result));
        requireStatus(outcome.problems, statusName(Kind::kUpgrade, false));
        requireIdle(outcome.problems);
        return outcome;
    }

    static void requireMove(Problems& problems, const std::string& from, const std::string& to) {
        const std::string command = "mv " + from + " " + to;
        require(problems, std::system(command.c_str()) == 0, command + " failed");
    }

    Outcome activate(const soak::Package& package) {
        Outcome outcome{"activated", {}};
        const int result = UPGRADE_activate();
        require(outcome.problems, result == 0, "the activation failed with " + std::to_string(result));
        require(outcome.problems, !UPGRADE_isUpgraded(), "something still awaits activation");
        soak::startAnew(outcome.problems);
        soak::requireContent(outcome.problems, soak::runningSlot(), package);
        before = after;
        after = &package;
        return outcome;
    }

    // Where there is a package to go back to: in the first round there is none, and after a run that failed while it
    // flashed, neither.
    static bool canRollBack() { return soak::sizeOf(kRollbackPackage) == kPackageBytes; }

    // The microcontroller runs another version than the package's: a switch of the slot is not enough.
    static bool rollbackFlashes() {
        _UPGRADE_PKG_T info;
        return read_info_form_pkg(info, kRollbackPackage) < 0 ||
               velGetMcuVersion(UpgradeProc::getInstance()->node) != info.version.mcu;
    }

    Outcome giveUpRollback(const soak::Moment& moment) {
        if (!canRollBack() || !rollbackFlashes()) {
            return rollBack();
        }
        int result = 0;
        Outcome outcome = giveUp(
            moment, pace, Kind::kRollback, [] { return UPGRADE_rollback_mpu(); }, &result);
        outcome.text += ", rollback " + moment.text();
        if (result == 0) {
            requireStatus(outcome.problems, statusName(Kind::kRollback, true));
            requireRolledBack(outcome.problems);
        }
        return outcome;
    }

    Outcome rollBack() {
        Outcome outcome{"rolled back", {}};
        const bool possible = canRollBack();
        const bool flashes = possible && rollbackFlashes();
        const int result = UPGRADE_rollback_mpu();
        if (!possible) {
            outcome.text = "nothing to roll back to";
            require(outcome.problems, result == kNoPackage, "the result is " + std::to_string(result));
            return outcome;
        }
        require(outcome.problems, result == 0, "the rollback failed with " + std::to_string(result));
        if (flashes) {
            requireStatus(outcome.problems, statusName(Kind::kRollback, true));
        } else {
            outcome.text = "switched back";
        }
        requireRolledBack(outcome.problems);
        return outcome;
    }

    void requireRolledBack(Problems& problems) {
        require(problems, !UPGRADE_isUpgraded(), "something still awaits activation");
        soak::startAnew(problems);
        soak::requireContent(problems, soak::runningSlot(), *before);
        after = before;
    }

    const unsigned long seed;
    unsigned long failures = 0;
    soak::Pace pace;
    const soak::Package* before = nullptr;  // what ran before the software that runs
    const soak::Package* after = nullptr;   // the software that runs
    const soak::Package packages[3] = {soak::makePackage("one", 105, 8, 3),
                                       soak::makePackage("two", 106, 9, 4),
                                       soak::makePackage("three", 107, 10, 5)};
    // Never installed, so it always has work for both processors.
    const soak::Package other = soak::makePackage("other", 108, 11, 6);
};

// ---------------------------------------------------------------------------------------------------------------------
// The series
// ---------------------------------------------------------------------------------------------------------------------

class Runner {
  public:
    explicit Runner(const Options& given) : options(given), memory(warmUp(given.runs)) {}

    int run(Series& series) {
        // The first run makes what stays: the log's file, the streams of the C library.
        if (options.index) {
            constexpr unsigned long kTimes = 10;
            for (unsigned long i = 0; i < kTimes; ++i) {
                make(series, *options.index);
            }
            return failed;
        }
        for (unsigned long index = 0; index < options.runs; ++index) {
            make(series, index);
            memory.sampleAfterRun();
        }
        if (memory.canTell()) {
            Problems problems;
            memory.requireFlat(problems);
            tell("memory", "flat, " + memory.text(), problems);
        }
        return failed;
    }

  private:
    static unsigned long warmUp(unsigned long runs) {
        constexpr unsigned long kAtMost = 50;
        return std::min(kAtMost, runs / 4);
    }

    void make(Series& series, unsigned long index) {
        const soak::ProcessState before;
        soak::forgetErrors();
        Outcome outcome = series.make(index);
        before.requireUnchanged(outcome.problems);
        soak::requireKnownNames(outcome.problems);
        if (!outcome.problems.empty()) {
            outcome.problems.push_back("logged: " + soak::loggedErrors());
        }
        tell(std::to_string(index), outcome.text, outcome.problems);
    }

    void tell(const std::string& what, const std::string& outcome, const Problems& problems) {
        soak::report("soak_" + options.series,
                     options.series + ":" + std::to_string(options.seed) + ":" + what, outcome, problems);
        failed = failed != 0 || !problems.empty() ? 1 : 0;
    }

    const Options options;
    soak::MemoryTrend memory;
    int failed = 0;
};

bool parse(int count, char** words, Options& options) {
    if (count < 2) {
        return false;
    }
    options.series = words[1];
    for (int i = 2; i + 1 < count; i += 2) {
        const std::string name = words[i];
        const unsigned long value = std::strtoul(words[i + 1], nullptr, 10);
        if (name == "--seed") {
            options.seed = value;
        } else if (name == "--runs") {
            options.runs = value;
        } else if (name == "--index") {
            options.index = value;
        } else {
            return false;
        }
    }
    return count % 2 == 0 && (options.series == "giveup" || (options.series == "mixed" && !options.index));
}

// What stays for the length of the process is there before anything is counted: the controller with the node's
// threads, and the thread that some sanitizers start with the first one.
bool makeReady() {
    std::thread([] {}).join();
    std::string directory;
    if (UPGRADE_init(directory) != 0) {
        std::fprintf(stderr, "the library does not start on this device\n");
        return false;
    }
    Problems problems;
    soak::startAnew(problems);
    for (const std::string& problem : problems) {
        std::fprintf(stderr, "%s\n", problem.c_str());
    }
    return problems.empty();
}

}  // namespace

int main(int count, char** words) {
    Options options;
    if (!parse(count, words, options)) {
        std::fprintf(stderr, "usage: soak giveup|mixed [--seed N] [--runs N] [--index N (giveup)]\n");
        return 2;
    }
    if (!testsupport::inTwin()) {
        std::fprintf(stderr, "soak runs on a twin only\n");
        return 2;
    }
    soak::keepStandardOutput();
    if (!makeReady()) {
        return 1;
    }
    std::unique_ptr<Series> series;
    if (options.series == "giveup") {
        series = std::make_unique<GiveUps>(options.seed);
    } else {
        series = std::make_unique<Mixed>(options.seed);
    }
    return Runner(options).run(*series);
}
