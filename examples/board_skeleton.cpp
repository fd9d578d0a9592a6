// The services of a board on which nothing works yet: every declaration of common/, in the order in which to make them
// work. It compiles, links and answers each call by the failure that its contract names. docs/porting.md goes with it.
#include <cstdarg>
#include <cstdio>

#include "common/cancellation.h"
#include "common/flash_driver.h"
#include "common/message_node.h"
#include "common/user_thread.h"
#include "common/utility.h"

namespace {

constexpr int kFailed = -1;

// Of a service that is not made yet.
int missing(const char* service) {
    printLog(1, "%s: this board has none yet\n", service);
    return kFailed;
}

}  // namespace

// --- 1. The log and the clock ---------------------------------------------------------------------------------------

// The board's own log, with the level. All of a line at once, and never a cancellation point: a give-up cancels the
// thread that logs.
void printLog(int level, const char* format, ...) {
    const COMMON_YR::CancelHold hold;
    std::fprintf(stderr, "[%d] ", level);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

// clock_gettime(CLOCK_MONOTONIC) as milliseconds.
double glbGetCurTickMs() {
    return 0.0;
}

namespace COMMON_YR {

// --- 2. Texts and tables: no system call in them --------------------------------------------------------------------

// Walks the rows up to kMapKeyEnd.
const char* getKeyString(int, const MapKeyString*) {
    return "unknown";
}

bool getStringKey(const char*, int&, const MapKeyString*) {
    return false;
}

const char* getCommonErrCode(int) {
    return "unknown";
}

// The part behind the last '/'; never null.
const char* getFileName(const char* path) {
    return path != nullptr ? path : "";
}

void split(const char*, const char*, std::list<std::string>&) {}

bool _xatoi(std::string, std::vector<unsigned char>&) {
    return false;
}

// --- 3. Files: what reports success is on storage -------------------------------------------------------------------

bool isFileExist(const char*) {
    return false;
}

long getFileSize(const char*) {
    return kFailed;
}

std::string readFile2String(const char*) {
    return {};
}

long readFileToBufferByOffset(const char*, unsigned long, unsigned long, char*) {
    return kFailed;
}

int getFiles(const char*, std::vector<std::string>&, bool) {
    return kFailed;
}

// A new file, fsync, rename, fsync of the directory: the old content or the new, whenever the power fails.
long writeFile(const char*, void*, unsigned long, bool) {
    return missing("writeFile");
}

int createFile(const char*, unsigned long) {
    return missing("createFile");
}

int rmFile(std::string) {
    return missing("rmFile");
}

// As writeFile, in blocks, with the holes kept and a cancellation point between two blocks.
int cpFile(std::string, std::string) {
    return missing("cpFile");
}

int mvFile(std::string, std::string) {
    return missing("mvFile");
}

// In blocks, with a cancellation point between two of them.
bool chkFileMd5(const std::string&, std::string) {
    return missing("chkFileMd5") == 0;
}

// statvfs of each row's path.
int checkPartitions(const UpgradePartsLimit*, unsigned long, bool) {
    return missing("checkPartitions");
}

// /bin/sh in a process group of its own; a cancel kills the group and reaps it.
int runSystem(const char*, ...) {
    return missing("runSystem");
}

// --- 4. Threads -----------------------------------------------------------------------------------------------------

// The mutex, the thread and whether it runs, shared with the thread.
struct UserThreadBase::Control {};

UserThreadBase::UserThreadBase() : name("baseThread"), stackSize(262144), priority(-1) {}

UserThreadBase::~UserThreadBase() {
    UserThreadBase::stop(kStopWaitMs);
}

int UserThreadBase::initFunc() {
    return 0;
}

int UserThreadBase::deinitFunc() {
    return 0;
}

int UserThreadBase::threadFunc() {
    return 0;
}

// pthread_create with stackSize and name; initFunc(), threadFunc() as often as asked for, deinitFunc().
bool UserThreadBase::start(int) {
    return false;
}

void UserThreadBase::stop(int) {}

bool UserThreadBase::isRunning() const {
    return false;
}

void UserThreadBase::setName(std::string threadName) {
    name = threadName;
}

const std::string& UserThreadBase::getName() const {
    return name;
}

}  // namespace COMMON_YR

// --- 5. The message node, which may stay like this, and the microcontroller -----------------------------------------

// A device without a node reports a run by its log and by the status queries alone.
void* getVelNode(int, const char*, int, int, int) {
    return nullptr;
}

int velPublishMsg(void*, const void*) {
    return kFailed;
}

void velDestroyNode(void** node) {
    if (node != nullptr) {
        *node = nullptr;
    }
}

// The link over which the microcontroller is programmed.
int velSpiDevCtrl(void*, bool) {
    return missing("velSpiDevCtrl");
}

// Until it works, the device counts as having the version of its version file.
int velGetMcuVersion(void*) {
    return kFailed;
}

// --- 6. The flash drivers -------------------------------------------------------------------------------------------

// What the driver knows of its slots and of what it has written.
struct UpgradeMpu::Impl {};

// Finds the slots and sets initOk.
UpgradeMpu::UpgradeMpu() : UpgradeLib("boardMpu") {}
UpgradeMpu::~UpgradeMpu() = default;

int UpgradeMpu::init() {
    return missing("UpgradeMpu");
}

int UpgradeMpu::preUpgrade(std::string, bool, bool) {
    return missing("UpgradeMpu");
}

// Writes the slot that does not run, the boot loader last, if it was asked for.
int UpgradeMpu::upgrade() {
    return missing("UpgradeMpu");
}

// Reads back from storage, not from memory, and notes durably what may be activated.
int UpgradeMpu::postUpgrade() {
    return missing("UpgradeMpu");
}

// true: the written slot starts next, on trial; false: the running one is confirmed. One durable save either way.
int UpgradeMpu::activate(bool) {
    return missing("UpgradeMpu");
}

struct UpgradeMcu::Impl {};

UpgradeMcu::UpgradeMcu() : UpgradeLib("boardMcu") {}
UpgradeMcu::~UpgradeMcu() = default;

// A device without a microcontroller returns 0 here and from preUpgrade, upgrade and postUpgrade, and 0 from
// velSpiDevCtrl. Failing here makes UPGRADE_init fail.
int UpgradeMcu::init() {
    return missing("UpgradeMcu");
}

int UpgradeMcu::preUpgrade(std::string, bool, bool) {
    return missing("UpgradeMcu");
}

int UpgradeMcu::upgrade() {
    return missing("UpgradeMcu");
}

int UpgradeMcu::postUpgrade() {
    return missing("UpgradeMcu");
}

int UpgradeMcu::activate(bool) {
    return missing("UpgradeMcu");
}

int UPGRADE_request_reboot() {
    return missing("UPGRADE_request_reboot");
}
