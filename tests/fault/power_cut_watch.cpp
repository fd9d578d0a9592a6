// Runs a command on a twin of the block form and cuts its power, again and again, without harm to the run: before each
// chosen call all of the device's programs are stopped, what its storage holds at that instant is copied, and they go on.
//
//   power_cut_watch --state DIR --out DIR [--commit FS,...] [--one-in K] [--only CALL:PATH#NTH] [--draw N --seed TEXT]
//                   [--list] -- COMMAND...
//
// DIR is the twin's directory, on a file system with shared extents. COMMAND runs the device's program with
// fault_interpose preloaded and KAVRO_FAULT_BOARD=/dev/kavro-mcu/board. Each cut becomes a twin of its own, OUT/NUMBER,
// with disks that are shared extents of the images and nothing else: what lies in memory, and what was written and not
// flushed, is gone. OUT/NUMBER/cut has a line of its cut: number, number of the call, CALL:PATH#NTH, program, source; tabs
// in between. A cut at which all but /raw lay on the same extents as at an earlier one is a further line of that one.
//
// A `sync` of any program on this host flushes the device as well. Before which cuts that happened since the one before
// is told by a sixth field of the line, "synced": the device's own call of it is among them.
//
// --commit    the file systems (config, firmware, raw) whose journal is committed just before each cut, as the kernel
//             may do at any time by itself: names are on storage then, content that was not flushed is not. With
//             `partitions` the partitions are flushed, as the kernel may do too. With `torn` a partition that is about to
//             be flushed is, in its first 4096 bytes: a write of a save of the boot environment that was cut in the
//             middle; there are no other cuts then
// --one-in K  of the writes that follow one another to one file, the first and each Kth (16); of what is sent to the
//             microcontroller four times as many
// --only      cuts there only
// --draw N    keeps N cuts, each of another CALL:PATH, as TEXT decides: every CALL:PATH is as likely as any other, and so
//             is each time that it is called. How many there will be nobody knows before the end: all are looked at, and
//             one that is drawn later takes the place of another one
// --list      writes the lines of the cuts to standard output and cuts nothing
//
// The exit status is that of COMMAND.

#include <dirent.h>
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/file_descriptor.h"
#include "tests/fault/interpose/board.h"

namespace {

namespace fs = std::filesystem;
using fault::Board;
using fault::Slot;
using kavro::FileDescriptor;

constexpr const char* kBoardName = "mcu/board";
// EXT4_IOC_CHECKPOINT, which the headers of the C library's system do not have.
constexpr unsigned long kCommitJournal = _IOW('f', 43, __u32);

[[noreturn]] void die(const std::string& text) {
    std::fprintf(stderr, "power_cut_watch: %s\n", text.c_str());
    std::exit(2);
}

[[noreturn]] void dieOf(const std::string& text) {
    die(text + ": " + std::strerror(errno));
}

struct Options {
    fs::path state;
    fs::path out;
    std::set<std::string> committed;
    unsigned long oneIn = 16;
    std::string only;
    std::size_t draw = 0;
    std::string seed;
    bool list = false;
    char** command = nullptr;
};

std::set<std::string> pieces(std::string text) {
    std::set<std::string> result;
    for (std::size_t end = 0; !text.empty(); text.erase(0, end == std::string::npos ? end : end + 1)) {
        end = text.find(',');
        result.insert(text.substr(0, end));
    }
    return result;
}

Options parse(char** arguments) {
    Options options;
    for (++arguments; *arguments != nullptr && std::strcmp(*arguments, "--") != 0; ++arguments) {
        const std::string name = *arguments;
        if (name == "--list") {
            options.list = true;
            continue;
        }
        if (*++arguments == nullptr) {
            die(name + " needs a value");
        }
        const std::string value = *arguments;
        if (name == "--state") {
            options.state = fs::canonical(value);
        } else if (name == "--out") {
            options.out = value;
        } else if (name == "--commit") {
            options.committed = pieces(value);
        } else if (name == "--one-in") {
            options.oneIn = std::strtoul(value.c_str(), nullptr, 10);
        } else if (name == "--only") {
            options.only = value;
        } else if (name == "--draw") {
            options.draw = std::strtoul(value.c_str(), nullptr, 10);
        } else if (name == "--seed") {
            options.seed = value;
        } else {
            die("unknown option " + name);
        }
    }
    if (*arguments == nullptr || arguments[1] == nullptr || options.state.empty() || options.oneIn == 0 ||
        (options.out.empty() && !options.list)) {
        die("--state, --out, a K above 0 and -- COMMAND are needed");
    }
    options.command = arguments + 1;
    return options;
}

// ---------------------------------------------------------------------------------------------------------------------
// The device's programs
// ---------------------------------------------------------------------------------------------------------------------

// The text behind a program's name, which may hold anything, in /proc/.../stat: its state and its parent.
bool readStat(const fs::path& path, char& state, pid_t& parent) {
    std::ifstream file(path);
    std::string text;
    std::getline(file, text);
    const std::size_t name = text.rfind(')');
    int number = 0;
    if (name == std::string::npos || std::sscanf(text.c_str() + name + 1, " %c %d", &state, &number) != 2) {
        return false;
    }
    parent = number;
    return true;
}

// All that descend from this process; the device's microcontroller is among them.
std::set<pid_t> descendants() {
    std::multimap<pid_t, pid_t> children;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        char state = 0;
        pid_t parent = 0;
        if (process > 0 && readStat(entry.path() / "stat", state, parent)) {
            children.emplace(parent, process);
        }
    }
    std::set<pid_t> found;
    std::vector<pid_t> open = {getpid()};
    while (!open.empty()) {
        const auto [first, last] = children.equal_range(open.back());
        open.pop_back();
        for (auto child = first; child != last; ++child) {
            found.insert(child->second);
            open.push_back(child->second);
        }
    }
    return found;
}

bool isStopped(pid_t process) {
    std::error_code error;
    for (fs::directory_iterator thread("/proc/" + std::to_string(process) + "/task", error), end;
         thread != end; thread.increment(error)) {
        char state = 0;
        pid_t parent = 0;
        if (readStat(thread->path() / "stat", state, parent) && std::strchr("TtZX", state) == nullptr) {
            return false;
        }
        if (error) {
            break;
        }
    }
    return true;
}

// Stops all, until none is left that runs or was begun meanwhile.
std::set<pid_t> freeze() {
    std::set<pid_t> stopped;
    for (;;) {
        const std::set<pid_t> all = descendants();
        for (const pid_t process : all) {
            if (stopped.insert(process).second) {
                kill(process, SIGSTOP);
            }
        }
        if (std::all_of(all.begin(), all.end(), isStopped)) {
            return stopped;
        }
        usleep(500);
    }
}

void thaw(const std::set<pid_t>& stopped) {
    for (const pid_t process : stopped) {
        kill(process, SIGCONT);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Storage
// ---------------------------------------------------------------------------------------------------------------------

void share(const fs::path& from, const fs::path& to) {
    const FileDescriptor source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    const FileDescriptor target(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!source.valid() || !target.valid() || ioctl(target.get(), FICLONE, source.get()) != 0) {
        dieOf(from.string() + " cannot be shared with " + to.string());
    }
}

void commitJournal(const fs::path& mounted) {
    const FileDescriptor directory(open(mounted.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    __u32 flags = 0;
    if (!directory.valid() || ioctl(directory.get(), kCommitJournal, &flags) != 0) {
        dieOf("the journal of " + mounted.string() + " cannot be committed");
    }
}

void flushPartitions(const fs::path& partitions) {
    for (const fs::directory_entry& entry : fs::directory_iterator(partitions)) {
        const FileDescriptor device(open(entry.path().c_str(), O_WRONLY | O_CLOEXEC));
        if (!device.valid() || fsync(device.get()) != 0) {
            dieOf(entry.path().string() + " cannot be flushed");
        }
    }
}

// A file that is written and not flushed: as long as it has no place on storage, nobody has flushed everything.
class Canary {
  public:
    explicit Canary(fs::path wanted) : path(std::move(wanted)) { renew(); }
    ~Canary() { fs::remove(path); }
    Canary(const Canary&) = delete;
    Canary& operator=(const Canary&) = delete;

    bool isOnStorage() const {
        std::array<std::uint64_t, (sizeof(fiemap) + sizeof(fiemap_extent)) / sizeof(std::uint64_t)> storage =
            {};
        auto& map = *reinterpret_cast<fiemap*>(storage.data());
        map.fm_length = FIEMAP_MAX_OFFSET;
        map.fm_extent_count = 1;
        if (ioctl(file.get(), FS_IOC_FIEMAP, &map) != 0 || map.fm_mapped_extents != 1) {
            dieOf(path.string() + ": where it lies cannot be told");
        }
        return (map.fm_extents[0].fe_flags & FIEMAP_EXTENT_DELALLOC) == 0;
    }

    void renew() {
        fs::remove(path);
        file = FileDescriptor(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file.valid() || write(file.get(), "canary", 6) != 6) {
            dieOf(path.string() + " cannot be written");
        }
    }

  private:
    fs::path path;
    FileDescriptor file;
};

// The first block of what was written to a partition and not flushed, into its image in a copy.
void tear(const fs::path& partition, const fs::path& image) {
    std::array<char, 4096> block;
    constexpr auto kBytes = static_cast<ssize_t>(block.size());
    const FileDescriptor device(open(partition.c_str(), O_RDONLY | O_CLOEXEC));
    const FileDescriptor torn(open(image.c_str(), O_WRONLY | O_CLOEXEC));
    if (!device.valid() || !torn.valid() || pread(device.get(), block.data(), block.size(), 0) != kBytes ||
        pwrite(torn.get(), block.data(), block.size(), 0) != kBytes) {
        dieOf(image.string() + " cannot be torn");
    }
}

void copyStorage(const fs::path& state, const fs::path& twin) {
    for (const char* name :
         {"config", "firmware", "raw", "tmp", "run", "partitions", "disks", "mcu", "etc-kavro"}) {
        fs::create_directories(twin / name);
    }
    for (const char* directory : {"disks", "etc-kavro"}) {
        for (const fs::directory_entry& entry : fs::directory_iterator(state / directory)) {
            share(entry.path(), twin / directory / entry.path().filename());
        }
    }
    share(state / "mcu/flash.bin", twin / "mcu/flash.bin");
    share(state / "created-with", twin / "created-with");
}

// Where a file lies. What is shared is never written in place: as long as a copy is kept, the same place means the same
// content.
std::string extentsOf(const fs::path& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<std::uint64_t> storage(std::size_t{64} * 1024);
    auto& map = *reinterpret_cast<fiemap*>(storage.data());
    map.fm_length = FIEMAP_MAX_OFFSET;
    map.fm_flags = FIEMAP_FLAG_SYNC;
    map.fm_extent_count = static_cast<__u32>((storage.size() * 8 - sizeof(fiemap)) / sizeof(fiemap_extent));
    if (!file.valid() || ioctl(file.get(), FS_IOC_FIEMAP, &map) != 0) {
        dieOf(path.string() + ": where it lies cannot be told");
    }
    if (map.fm_mapped_extents == map.fm_extent_count) {
        die(path.string() + " lies in too many pieces");
    }
    std::string text = path.filename().string();
    for (const fiemap_extent* extent = map.fm_extents; extent != map.fm_extents + map.fm_mapped_extents;
         ++extent) {
        const bool unwritten = (extent->fe_flags & FIEMAP_EXTENT_UNWRITTEN) != 0;
        text += ' ' + std::to_string(extent->fe_logical) + (unwritten ? "-" : "+") +
                std::to_string(extent->fe_length) + '@' + std::to_string(extent->fe_physical);
    }
    return text;
}

std::set<std::string> extentsOfDevice(const fs::path& twin) {
    std::set<std::string> files = {extentsOf(twin / "mcu/flash.bin")};
    for (const char* directory : {"disks", "etc-kavro"}) {
        for (const fs::directory_entry& entry : fs::directory_iterator(twin / directory)) {
            if (entry.path().filename() != "raw.img") {
                files.insert(extentsOf(entry.path()));
            }
        }
    }
    return files;
}

// ---------------------------------------------------------------------------------------------------------------------
// The cuts
// ---------------------------------------------------------------------------------------------------------------------

bool isWrite(const std::string& call) {
    static const std::set<std::string> writes = {"write",    "pwrite", "writev",         "copy_file_range",
                                                 "sendfile", "send",   "sync_file_range"};
    return writes.count(call) != 0;
}

// The same in every run and on every machine.
std::uint64_t digestOf(const std::string& text) {
    constexpr std::uint64_t kBasis = 14695981039346656037U;
    constexpr std::uint64_t kPrime = 1099511628211U;
    std::uint64_t digest = kBasis;
    for (const char letter : text) {
        digest = (digest ^ static_cast<unsigned char>(letter)) * kPrime;
    }
    // What differs in the last letters differs in the low bits only, until they are mixed.
    digest ^= digest >> 32U;
    digest *= 0xd6e8feb86659fd93U;
    return digest ^ digest >> 32U;
}

// Of things that come one after the other the few with the lowest digests, one of each kind.
class Draw {
  public:
    Draw(std::size_t places, std::string text) : wanted(places), seed(std::move(text)) {}

    // What is not need not be cut at all.
    bool isWanted(const std::string& kind, const std::string& id) const {
        const std::uint64_t rank = digestOf(seed + '/' + kind);
        const auto known = drawn.find(rank);
        if (known != drawn.end()) {
            return digestOf(seed + '/' + id) < known->second.rank;
        }
        return drawn.size() < wanted || rank < std::prev(drawn.end())->first;
    }

    // Takes in one that isWanted(), and gives the name of what has to go for it, if anything has.
    std::string take(const std::string& kind, const std::string& id, const std::string& name) {
        const Drawn candidate = {digestOf(seed + '/' + id), name};
        const auto [known, isNew] = drawn.emplace(digestOf(seed + '/' + kind), candidate);
        if (!isNew) {
            return std::exchange(known->second, candidate).name;
        }
        if (drawn.size() <= wanted) {
            return {};
        }
        const auto last = std::prev(drawn.end());
        std::string loser = last->second.name;
        drawn.erase(last);
        return loser;
    }

  private:
    struct Drawn {
        std::uint64_t rank;
        std::string name;
    };

    std::size_t wanted;
    std::string seed;
    std::map<std::uint64_t, Drawn> drawn;  // by the rank of the kind
};

class Cutter {
  public:
    explicit Cutter(const Options& wanted)
        : options(wanted), canary(options.state / "mcu/canary"), draw(wanted.draw, wanted.seed) {
        for (const fs::directory_entry& entry : fs::directory_iterator(options.state / "partitions")) {
            if (entry.is_symlink()) {
                partitions[fs::read_symlink(entry.path())] =
                    "/dev/disk/by-partlabel/" + entry.path().filename().string();
            }
        }
    }

    void look(const Slot& slot) {
        const std::string path = named(slot.call.path);
        if (path.rfind("/tmp/", 0) == 0) {
            return;
        }
        const std::string kind = std::string(slot.call.name) + ":" + path;
        const unsigned long nth = ++seen[kind];
        const unsigned long inARow =
            isWrite(slot.call.name) ? writesInARow[path]++ : (writesInARow[path] = 0);
        const std::string id = kind + "#" + std::to_string(nth);
        const bool isSent = std::strcmp(slot.call.name, "send") == 0;
        const unsigned long oneIn = std::max(isSent ? options.oneIn / 4 : options.oneIn, 1UL);
        if (options.only.empty() ? inARow % oneIn == 0 : options.only == id) {
            consider(slot, kind, id, path);
        }
    }

    void cutAtTheEnd() {
        if (options.only.empty() || options.only == "end:/#1") {
            consider({}, "end:/", "end:/#1", "/");
        }
    }

  private:
    void consider(const Slot& slot, const std::string& kind, const std::string& id, const std::string& path) {
        if (options.committed.count("torn") != 0 && tornPartition(slot, path).empty()) {
            return;
        }
        if (options.draw == 0 || options.list) {
            cut(slot, id, path);
        } else if (draw.isWanted(kind, id)) {
            const std::string loser = draw.take(kind, id, cut(slot, id, path));
            if (!loser.empty()) {
                fs::remove_all(options.out / loser);
            }
        }
    }

    // The partition whose flush this is.
    static std::string tornPartition(const Slot& slot, const std::string& path) {
        const std::string prefix = "/dev/disk/by-partlabel/";
        const bool isFlush = std::strcmp(slot.call.name, "fsync") == 0 && path.rfind(prefix, 0) == 0;
        return isFlush ? path.substr(prefix.size()) : std::string();
    }

    // The number of a loop device is another one each time.
    std::string named(const char* path) const {
        const auto found = partitions.find(path);
        return found == partitions.end() ? path : found->second;
    }

    // Gives the name of the cut.
    std::string cut(const Slot& slot, const std::string& id, const std::string& path) {
        char name[16];
        std::snprintf(name, sizeof(name), "%04u", ++cuts);
        const std::string from = slot.call.from[0] == '\0' ? "-" : named(slot.call.from);
        const std::string program = slot.program[0] == '\0' ? "-" : slot.program;
        const std::string line =
            std::string(name) + '\t' + std::to_string(slot.number) + '\t' + id + '\t' + program + '\t' + from;
        if (options.list) {
            std::puts(line.c_str());
            return name;
        }
        const std::set<pid_t> stopped = freeze();
        const bool isSynced = canary.isOnStorage();
        flushSome();
        copyStorage(options.state, options.out / name);
        if (options.committed.count("torn") != 0) {
            const std::string partition = tornPartition(slot, path);
            tear(options.state / "partitions" / partition,
                 options.out / name / "disks" / (partition + ".img"));
        }
        thaw(stopped);
        std::ofstream(options.out / home(name) / "cut", std::ios::app)
            << line << (isSynced ? "\tsynced\n" : "\t-\n");
        if (isSynced) {
            canary.renew();
        }
        return name;
    }

    // Where this cut is kept: with an earlier one that lay on the same extents. What is drawn may go again, alone.
    std::string home(const std::string& name) {
        if (options.draw != 0) {
            return name;
        }
        const auto [known, isNew] = places.emplace(extentsOfDevice(options.out / name), name);
        if (!isNew) {
            fs::remove_all(options.out / name);
        }
        return known->second;
    }

    // As the kernel may do by itself.
    void flushSome() const {
        for (const std::string& what : options.committed) {
            if (what == "partitions") {
                flushPartitions(options.state / what);
            } else if (what != "torn") {
                commitJournal(options.state / what);
            }
        }
    }

    const Options& options;
    Canary canary;
    Draw draw;
    std::map<std::string, std::string> partitions;
    std::map<std::string, unsigned long> seen;
    std::map<std::string, unsigned long> writesInARow;
    std::map<std::set<std::string>, std::string> places;  // where all of a cut lay, and which it was
    unsigned cuts = 0;
};

Board& makeBoard(const fs::path& path) {
    fs::remove(path);
    const FileDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file.valid() || ftruncate(file.get(), sizeof(Board)) != 0) {
        dieOf(path.string() + " cannot be made");
    }
    void* mapped = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (mapped == MAP_FAILED) {
        dieOf(path.string() + " cannot be mapped");
    }
    auto& board = *new (mapped) Board;  // zeros, as the file is
    board.magic = fault::kBoardMagic;
    board.watched = 1;
    return board;
}

long futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value, const timespec* limit) {
    return syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), operation, value, limit, nullptr, 0);
}

// The question that came first, or none.
Slot* nextQuestion(Board& board) {
    Slot* next = nullptr;
    for (Slot& slot : board.slots) {
        if (slot.state == Slot::kAsks && (next == nullptr || slot.number < next->number)) {
            next = &slot;
        }
    }
    return next;
}

// Answers until the command is over; gives its exit status.
int attend(Board& board, pid_t command, Cutter& cutter) {
    constexpr timespec kPollCommand = {0, 20000000};
    for (;;) {
        const std::uint32_t rings = board.rings;
        while (Slot* slot = nextQuestion(board)) {
            cutter.look(*slot);
            slot->state = Slot::kGoes;
            futex(slot->state, FUTEX_WAKE, INT_MAX, nullptr);
        }
        int status = 0;
        if (waitpid(command, &status, WNOHANG) == command) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        futex(board.rings, FUTEX_WAIT, rings, &kPollCommand);
    }
}

}  // namespace

int main(int /*count*/, char** arguments) {
    const Options options = parse(arguments);
    Board& board = makeBoard(options.state / kBoardName);
    Cutter cutter(options);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t command = fork();
    if (command == 0) {
        execvp(options.command[0], options.command);
        dieOf(options.command[0]);
    }
    const int status = attend(board, command, cutter);
    cutter.cutAtTheEnd();
    return status;
}
