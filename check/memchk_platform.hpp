// What the layer needs of the operating system. Implemented once per platform; any thread may call.
#pragma once

#include <string>

namespace memchk::platform {

// A function of the running process by its exported name; null when there is none, and on Windows.
void *findFunction(const char *pName) noexcept;

// The file that holds the code at an address, and the offset in it: "program+0x1234", with the name
// of the function where it is exported. Empty when it is in no file.
std::string codeName(const void *pCode);

}  // namespace memchk::platform
