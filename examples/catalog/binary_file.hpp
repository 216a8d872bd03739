// Whole files as bytes, in binary form on every platform.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace catalog {

// Throws InputError with the reason when the file cannot be read.
std::string readBytes(const std::filesystem::path &path);

// Throws InputError with the reason when the file cannot be written; a file begun is removed then.
void writeBytes(const std::filesystem::path &path, std::string_view bytes);

}  // namespace catalog
