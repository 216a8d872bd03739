// What the host needs from the operating system: pages, dynamic libraries, stacks and the program's
// path. Implemented for each platform. All functions may be called on any thread.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace refhost::platform {

// Bytes of a page, a power of two.
std::size_t pageSize();

// Maps zero-filled writable pages; null if the system has none. `bytes` is a multiple of the page
// size and not 0.
void *mapPages(std::size_t bytes);

// Unmaps pages, whatever their protection. `bytes` is the length with which they were mapped.
void unmapPages(void *pages, std::size_t bytes);

// Makes whole pages read-only or writable. False if the system refuses.
bool protectPages(void *pages, std::size_t bytes, bool readOnly);

// Loads a library; null on failure, with the loader's message in `reason`.
void *loadLibrary(const std::filesystem::path &path, std::string &reason);

// Folders that the loader searches for the program's libraries before those of the system, in its
// order; empty if the system does not list them. loadLibrary() searches them too, unless it goes
// through a sanitizer's runtime: the loader then searches on behalf of that runtime, which does not
// have the program's run path.
std::vector<std::filesystem::path> libraryFolders();

// Address of an exported name; null if there is none, with the loader's message in `reason`.
void *findExport(void *library, const char *name, std::string &reason);

void unloadLibrary(void *library);

// The memory services' file name on this platform.
const char *libraryFileName();

// Calls `ended(value)` on the calling thread when it ends; where threads are POSIX threads, after
// the destructors of its thread-local objects. A later call on the same thread replaces an earlier
// one; with POSIX threads it may also come during or after `ended`. `ended` may not be called for
// threads that still run when the program ends, for the thread that ends it, and if the system has
// no room for another key.
// REQUIRES: `ended` is the same at every call; `value` is not null.
void atThreadEnd(void (*ended)(void *), void *value);

// Return addresses on the calling thread's stack, the innermost first; empty where the system does
// not provide them. The first are the host's own.
std::vector<void *> callStack();

// Start of the program or dynamic library that contains an address; null if none does.
const void *moduleAt(const void *address);

// What is at a return address, with the offset of the call before it: "function()+0x1B
// (program+0x2A1B)", without the function if its name is not known.
std::string placeOf(void *returnAddress);

// Stops in the debugger; without one the program ends.
void stopInDebugger();

// Full path of the running program.
std::filesystem::path programPath();

}  // namespace refhost::platform
