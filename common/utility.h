// The device's utility services: logging, time, files, shell commands, name tables.
//
// libcommon_yr.so implements them; on a device the maker's own library may take its place. Every function
// reports failure by its result and never throws. Every function may be called from several threads at once.
// Unless a function says otherwise it blocks only for its own file or terminal work, and it may be called on
// a thread that can be cancelled: a cancel takes effect only where the function says so, and then leaves no
// descriptor, lock or child process behind.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "common/export.h"

// Writes one log line. level: 1 error, 2 notice or warning, 3 information and progress. format: as printf(3);
// the line break at its end belongs to the text. Lines of any length are kept whole, and lines of different
// threads do not mix. Never a cancellation point.
KAVRO_EXPORT void printLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The monotonic clock in milliseconds, with fractions. Its zero is arbitrary; it never goes back.
KAVRO_EXPORT double glbGetCurTickMs();

namespace COMMON_YR {

// One row of a name table. A table is a constant array whose last row has the key kMapKeyEnd and the text "".
struct MapKeyString {
    int key;           // any but kMapKeyEnd
    const char* text;  // never null
};
inline constexpr int kMapKeyEnd = -99999999;  // the key of a name table's last row

// The result of file operations on a file that does not exist.
inline constexpr int kErrNoFile = -2989;

// One row of a partition check: where the file system is mounted, the capacity in bytes that the device is
// built with, and the least capacity that it can work with.
struct UpgradePartsLimit {
    std::string path;        // of the file system, or of anything in it
    long long nominalBytes;  // less is told
    long long minimumBytes;  // less is a failure
};

// Runs a shell command line (printf-style, of any length) with /bin/sh and waits for it. The command has no
// standard input and runs in a process group of its own; the first 16 KiB of what it prints go to the log as level 3, a line each,
// when it has ended, unless the program has a printLog of its own. It gets the environment, PATH included, without the variables that would change what it does, such as
// TAR_OPTIONS, OPENSSL_CONF or ENV.
// Returns 0 when it exited with status 0; a negative value when it could not be started, exited with another
// status or died by a signal. A cancel takes effect while the command runs: the command and what it started
// are killed, and it is reaped.
KAVRO_EXPORT int runSystem(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Copies a regular file's content and permission bits. The destination is on storage before success is
// reported; until then it does not exist under its name, or holds what it held before. Holes in the source
// stay holes, and blocks of zeros become some. A source that becomes shorter meanwhile is an error. When the
// storage has no room for the new content beside the old destination, the old one is given up first. Returns
// 0, or a negative value when either path is a directory, or on any read, write or flush error. A cancel takes
// effect between two blocks and leaves no partial destination. A destination that has to be written in place, as with
// writeFile, keeps its permission bits and is left empty by a failure or a cancel.
KAVRO_EXPORT int cpFile(std::string src, std::string dst);

// Moves a file: a rename where both paths are on one file system, otherwise a copy (as cpFile) followed by
// the removal of the source. Returns 0, or a negative value with the source still in place.
KAVRO_EXPORT int mvFile(std::string src, std::string dst);

// Removes a file. Returns 0; kErrNoFile when there is none; another negative value on failure.
KAVRO_EXPORT int rmFile(std::string path);

// Creates a file of the given size in bytes (zero-filled, without occupying storage), or sets an existing one
// to that size. It and its directory entry are on storage when it returns. Returns 0, negative on failure.
KAVRO_EXPORT int createFile(const char* path, unsigned long size);

// Replaces the content of a file by size bytes at data. A regular file is replaced as a whole: after a failure or
// a power cut it holds the old content or the new, never a part. Only where its directory takes no new file, or where
// the file itself is a mount point, is it written in place, after room for all of it was reserved; a write that fails
// then leaves it empty, and a power cut leaves a part.
// Something that is no regular file is written to as it stands. flag is reserved and ignored. Returns the number
// of bytes written, which is size, or a negative value.
KAVRO_EXPORT long writeFile(const char* path, void* data, unsigned long size, bool flag);

// The whole content of a file; empty when it is missing, unreadable or a directory.
KAVRO_EXPORT std::string readFile2String(const char* path);

// Reads up to length bytes from offset into buffer, which the caller owns. Returns the number of bytes read,
// less than length only when the file ends before; negative on failure.
KAVRO_EXPORT long readFileToBufferByOffset(const char* path, unsigned long offset, unsigned long length,
                                           char* buffer);

// The size of a regular file in bytes, links followed; negative on failure.
KAVRO_EXPORT long getFileSize(const char* path);

// Whether something exists at the path, links followed. Where storage gives no answer (EIO) that is assumed: what is then
// done with the file tells.
KAVRO_EXPORT bool isFileExist(const char* path);

// Appends the bare names of the files in a directory, links followed, sorted by byte value: no subdirectories, and no
// pipes, sockets and devices, which a caller that reads what it finds would wait for. A link that leads nowhere is
// named, too. flag is reserved and ignored. Returns 0, or a negative value when the directory cannot be read.
KAVRO_EXPORT int getFiles(const char* dir, std::vector<std::string>& names, bool flag);

// Appends the pieces of text between the separators, in order, without empty ones. A null or empty separator
// gives the whole text as one piece.
KAVRO_EXPORT void split(const char* text, const char* separator, std::list<std::string>& pieces);

// The part of path behind its last '/', pointing into path; never null, the empty text for a null path.
KAVRO_EXPORT const char* getFileName(const char* path);

// Whether the MD5 of the whole file is md5Text: 32 hexadecimal digits in either case. False when it cannot be
// read. A cancel takes effect between two blocks.
KAVRO_EXPORT bool chkFileMd5(const std::string& path, std::string md5Text);

// Converts pairs of hexadecimal digits (either case) to bytes, in order. False, with bytes untouched, for a
// character that is no hexadecimal digit or for an odd number of digits.
KAVRO_EXPORT bool _xatoi(std::string hexText, std::vector<unsigned char>& bytes);

// The text of the row with that key; "unknown" when there is none. Never null. The result lives as long as
// the table.
KAVRO_EXPORT const char* getKeyString(int key, const MapKeyString* table);

// Whether a row has that text; key is set only then. The table's last row is no match for the empty text.
KAVRO_EXPORT bool getStringKey(const char* name, int& key, const MapKeyString* table);

// A constant text for a result code of the functions above or of remove(3).
KAVRO_EXPORT const char* getCommonErrCode(int code);

// Checks the capacity of mounted file systems: count rows at rows. Every row is looked at, and one below its
// nominalBytes is logged at level 2. flag is reserved and ignored. Returns 0; negative when a path is missing
// or a file system's capacity is below its row's minimumBytes.
KAVRO_EXPORT int checkPartitions(const UpgradePartsLimit* rows, unsigned long count, bool flag);

}  // namespace COMMON_YR
