// What the host needs of the operating system: pages, dynamic libraries and the program's place.
// Implemented once per platform. All functions may be called on any thread.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace refhost::platform {

// Bytes of a page, a power of two.
std::size_t pageSize();

// Maps zero-filled writable pages; null when there are none. `bytes` is a multiple of the page
// size and not 0.
void *mapPages(std::size_t bytes);

// Returns pages with the length with which they were mapped, whatever their protection.
void unmapPages(void *pages, std::size_t bytes);

// Makes whole pages read-only or writable. False when the system refuses.
bool protectPages(void *pages, std::size_t bytes, bool readOnly);

// Loads a library; null on failure, with the loader's words in `reason`.
void *loadLibrary(const std::filesystem::path &path, std::string &reason);

// Folders that the loader searches for the program's libraries, in its order; empty where the system
// does not tell. loadLibrary() finds them too, unless a sanitizer's runtime stands between: the
// loader then searches on behalf of that runtime, which does not have the program's run path.
std::vector<std::filesystem::path> libraryFolders();

// Address of an exported name; null when there is none, with the loader's words in `reason`.
void *findExport(void *library, const char *name, std::string &reason);

void unloadLibrary(void *library);

// The memory services' file name on this platform.
const char *libraryFileName();

// Calls `ended(value)` on the calling thread when it ends, after the destructors of its
// thread-local objects where threads are POSIX threads. Of several calls on a thread the last one
// holds; there, a thread may ask once more during or after `ended`. No call is promised to threads
// that still run when the program ends, to the one that ends it, and where the system has no room
// to remember it.
// REQUIRES: `ended` is the same at every call; `value` is not null.
void atThreadEnd(void (*ended)(void *), void *value);

// Return addresses on the calling thread's stack, the innermost first; empty where the system has
// no way to tell. The first calls are the host's own.
std::vector<void *> callStack();

// Start of the program or dynamic library that an address belongs to; null when there is none.
const void *moduleAt(const void *address);

// What is at a return address, with the offset of the call before it: "function()+0x1B
// (program+0x2A1B)", without the function where its name is not known.
std::string placeOf(void *returnAddress);

// Stops in the debugger; without one the program ends.
void stopInDebugger();

// Full path of the running program.
std::filesystem::path programPath();

}  // namespace refhost::platform
