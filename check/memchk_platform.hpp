// What the layer needs from the operating system. Implemented for each platform; any thread may
// call.
#pragma once

#include <string>

namespace memchk::platform {

// A function of the running process by its exported name; null if there is none, and on Windows.
void *findFunction(const char *pName) noexcept;

// The file that contains the code at an address, and the offset in it: "program+0x1234", with the
// name of the function if it is exported. Empty if no file contains it.
std::string codeName(const void *pCode);

}  // namespace memchk::platform
