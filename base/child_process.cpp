#include "base/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string_view>
#include <vector>

namespace kavro {
namespace {

constexpr int kGroupEndPolls = 200;
constexpr timespec kGroupEndPause = {0, 1000000};

class SpawnAttributes {
  public:
    SpawnAttributes() { valid = posix_spawnattr_init(&attributes) == 0; }
    ~SpawnAttributes() {
        if (valid) {
            posix_spawnattr_destroy(&attributes);
        }
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    // A process group of its own, no signal blocked, none ignored: what the host does with its signals (a job
    // that ignores SIGINT, a thread that blocks all) is none of the child's business.
    bool setUp() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        constexpr short kFlags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        return valid && posix_spawnattr_setflags(&attributes, kFlags) == 0 &&
               posix_spawnattr_setpgroup(&attributes, 0) == 0 &&
               posix_spawnattr_setsigmask(&attributes, &none) == 0 &&
               posix_spawnattr_setsigdefault(&attributes, &all) == 0;
    }
    const posix_spawnattr_t* get() const { return &attributes; }

  private:
    posix_spawnattr_t attributes;
    bool valid;
};

class SpawnFiles {
  public:
    SpawnFiles() { valid = posix_spawn_file_actions_init(&actions) == 0; }
    ~SpawnFiles() {
        if (valid) {
            posix_spawn_file_actions_destroy(&actions);
        }
    }
    SpawnFiles(const SpawnFiles&) = delete;
    SpawnFiles& operator=(const SpawnFiles&) = delete;

    // The output before the script, which may take its descriptor. None of ours is one of the first three.
    bool setUp(int script, int output) {
        return valid &&
               posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
               (output < 0 || (posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO) == 0 &&
                               posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO) == 0)) &&
               (script < 0 ||
                posix_spawn_file_actions_adddup2(&actions, script, ChildProcess::kScriptDescriptor) == 0);
    }
    const posix_spawn_file_actions_t* get() const { return &actions; }

  private:
    posix_spawn_file_actions_t actions;
    bool valid;
};

// What others may have put there for programs of their own, and what in a command of ours would mean something else.
constexpr std::string_view kWithheldVariables[] = {"TAR_OPTIONS",
                                                   "TAPE",
                                                   "OPENSSL_CONF",
                                                   "OPENSSL_CONF_INCLUDE",
                                                   "OPENSSL_MODULES",
                                                   "OPENSSL_ENGINES",
                                                   "IFS",
                                                   "ENV",
                                                   "BASH_ENV",
                                                   "SHELLOPTS",
                                                   "BASHOPTS",
                                                   "CDPATH",
                                                   "GLOBIGNORE",
                                                   "POSIXLY_CORRECT",
                                                   "VERSION_CONTROL",
                                                   "SIMPLE_BACKUP_SUFFIX"};
constexpr std::string_view kShellFunction = "BASH_FUNC_";

bool isWithheld(std::string_view assignment) {
    const std::string_view name = assignment.substr(0, assignment.find('='));
    return name.substr(0, kShellFunction.size()) == kShellFunction ||
           std::find(std::begin(kWithheldVariables), std::end(kWithheldVariables), name) !=
               std::end(kWithheldVariables);
}

// Ends with a null pointer; the texts stay those of this process.
std::vector<char*> environmentForChild() {
    std::vector<char*> variables;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        if (!isWithheld(*variable)) {
            variables.push_back(*variable);
        }
    }
    variables.push_back(nullptr);
    return variables;
}

// What the child left behind becomes ours to reap where this process adopts orphans (as init does, or a
// subreaper). Only members of the group that was made for the child are touched.
void reapAdopted(pid_t group) {
    while (waitpid(-group, nullptr, WNOHANG) > 0) {
    }
}

// What was killed still holds its files until it is gone, and the next command may be about to use them. The
// wait is bounded, because a zombie that its new parent never reaps stays in the group.
void awaitGroupEnd(pid_t group) {
    for (int poll = 0; poll < kGroupEndPolls && kill(-group, 0) == 0; ++poll) {
        reapAdopted(group);
        nanosleep(&kGroupEndPause, nullptr);
    }
}

}  // namespace

ChildProcess::~ChildProcess() {
    if (pid == 0) {
        return;
    }
    // The child is not reaped yet, so its number cannot belong to another group.
    const pid_t group = pid;
    kill(-group, SIGKILL);
    (void)reap();
    awaitGroupEnd(group);
}

bool ChildProcess::start(const char* path, const char* const arguments[], int script, int output) {
    SpawnAttributes attributes;
    SpawnFiles files;
    if (!attributes.setUp() || !files.setUp(script, output)) {
        return false;
    }
    pid_t started = 0;
    std::vector<char*> environment = environmentForChild();
    // posix_spawn does not write through the argument array; its type is older than const.
    const int error = posix_spawn(&started, path, files.get(), attributes.get(),
                                  const_cast<char* const*>(arguments), environment.data());
    if (error != 0) {
        errno = error;
        return false;
    }
    pid = started;
    return true;
}

ChildProcess::Progress ChildProcess::progress() const {
    siginfo_t info = {};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WSTOPPED | WNOHANG | WNOWAIT) != 0) {
        return errno == EINTR ? Progress::kRuns : Progress::kEnded;  // somebody else has reaped it
    }
    if (info.si_pid == 0) {
        return Progress::kRuns;
    }
    return info.si_code == CLD_STOPPED ? Progress::kStopped : Progress::kEnded;
}

bool ChildProcess::succeeds(const COMMON_YR::CancelHold& hold) {
    for (;;) {
        siginfo_t info;
        int result = 0;
        {
            // Without reaping: a cancel between the end of the child and the end of the call loses nothing.
            const COMMON_YR::CancelWindow window(hold);
            result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
        }
        if (result == 0) {
            return reap();
        }
        if (errno != EINTR) {
            pid = 0;  // somebody else has reaped it
            return false;
        }
    }
}

bool ChildProcess::reap() {
    int status = 0;
    pid_t reaped = 0;
    do {
        reaped = waitpid(pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    pid = 0;
    return reaped > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace kavro
