// Runs the component in the reference host: consumer_program [<path of the module>]
// Without the path it finds the module itself.
#include <refhost.hpp>

#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

#include "component.h"

static bool expectEqual(std::string_view what, std::int64_t found, std::int64_t expected) {
  if (found == expected) return true;
  std::cerr << what << ": found " << found << ", expected " << expected << '\n';
  return false;
}

static bool isSunkOnce(const MEMFunctionVector &mem) {
  const char *first = nullptr;
  const char *second = nullptr;
  const std::string copy = "consumer";
  return mem.MEM_SinkString("consumer", &first) == 0 &&
         mem.MEM_SinkString(copy.c_str(), &second) == 0 && first == second &&
         first == std::string_view("consumer") && mem.MEM_SinkDelete(second) == 0 &&
         mem.MEM_SinkDelete(first) == 0;
}

static bool works(const std::filesystem::path &module) {
  const refhost::Library library(module);
  refhost::Session session(library.bindEntry());
  refhost::Host &host = session.host();

  bool isGood = expectEqual("sum of the list", sumOfList(&session.vector(), 1000), 500500);
  isGood &= expectEqual("one copy of a sunk string", isSunkOnce(session.vector()), 1);
  host.arm({.service = refhost::Service::GetStorage});
  isGood &= expectEqual("sum without storage", sumOfList(&session.vector(), 1000), -1);
  isGood &= expectEqual("code without storage", host.thread().Error.Code, MEMERR_HEAPAMEM);
  isGood &= expectEqual("areas left", static_cast<std::int64_t>(host.account(0).liveCount), 0);
  isGood &= expectEqual("nothing is left or misused", session.close().empty(), 1);
  return isGood;
}

int main(int count, char **args) try {
  if (!works(count == 2 ? args[1] : refhost::Library::installed())) return 1;
  std::cout << "the component works\n";
  return 0;
} catch (const std::exception &error) {
  std::cerr << error.what() << '\n';
  return 1;
}
