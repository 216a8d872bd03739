// Loading the library, and a host with the library started.
#include <stdexcept>
#include <system_error>
#include <utility>

#include "refhost.hpp"
#include "refhost_platform.hpp"

namespace refhost {

Library::Library(const std::filesystem::path &path) {
  std::string reason;
  handle_ = platform::loadLibrary(path, reason);
  if (handle_ == nullptr) {
    throw std::runtime_error("cannot load " + path.string() + ": " + reason);
  }
  void *const entry = platform::findExport(handle_, MEM_BIND_ENTRY_NAME, reason);
  if (entry == nullptr) {
    platform::unloadLibrary(handle_);
    throw std::runtime_error(path.string() + " has no " + MEM_BIND_ENTRY_NAME + ": " + reason);
  }
  bindEntry_ = reinterpret_cast<MEMBindFn *>(entry);
}

Library::~Library() {
  platform::unloadLibrary(handle_);
}

std::filesystem::path Library::besideProgram() {
  return platform::programPath().parent_path() / platform::libraryFileName();
}

std::filesystem::path Library::installed() {
  std::error_code ignored;
  if (std::filesystem::exists(besideProgram(), ignored)) return besideProgram();
  for (const std::filesystem::path &folder : platform::libraryFolders()) {
    std::filesystem::path path = folder / platform::libraryFileName();
    if (std::filesystem::exists(path, ignored)) return path;
  }
  return platform::libraryFileName();
}

namespace {

std::string failureText(Host &host, const std::string &step, std::uint32_t code, const char *text) {
  const std::optional<Message> message = host.message(code);
  const std::string name = message ? " (" + message->name + ": " + message->text + ")" : "";
  return step + " failed with code " + std::to_string(code) + name + ", " + text;
}

}  // namespace

Session::Session(MEMBindFn *entry, Options options) : host_(std::move(options)), entry_(entry) {
  host_.bind(entry_);
  const MEMErrorArea &error = host_.thread().Error;
  std::string failure;
  // MEM_ProcessInit stores its cause in the inner fields, the other services in the outer ones.
  if (vector().MEM_ProcessInit() != 0) {
    failure = failureText(host_, "MEM_ProcessInit", error.InnerCode, error.InnerText);
  } else if (vector().MEM_ThreadAct() != 0) {
    failure = failureText(host_, "MEM_ThreadAct", error.Code, error.NameText);
  } else {
    return;
  }
  vector().MEM_ProcessTerm();
  host_.unbind(entry_);
  throw std::runtime_error(failure);
}

Session::~Session() {
  close();
}

Findings Session::close() {
  if (!isOpen_) return {};
  isOpen_ = false;
  host_.disarm();
  host_.restoreSlots();
  vector().MEM_ThreadTerm();
  vector().MEM_ProcessTerm();
  host_.unbind(entry_);
  return host_.report();
}

}  // namespace refhost
