// What most tests include, in its compiled form. A test still names all that it needs: with
// MEM_PCH=OFF nothing is precompiled.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "refhost.hpp"
