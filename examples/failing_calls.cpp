// Calls that fail, each in its own way, and what each records.
#include <cstddef>
#include <cstdio>
#include <string_view>

#include "refhost.hpp"

namespace {

// What the last call has recorded for this thread. Read it at once: most calls erase it.
void show(refhost::Host &host, const char *call, int result) {
  const MEMErrorArea &error = host.thread().Error;
  std::printf("%s: result %d\n", call, result);
  if (error.Code != 0) {
    std::printf("  Code %u, NameText \"%s\"\n", unsigned{error.Code}, error.NameText);
  }
  if (error.InnerCode != 0) {
    std::printf("  InnerCode %u, InnerText \"%s\"\n", unsigned{error.InnerCode}, error.InnerText);
  }
}

void refuseAnArgument(refhost::Host &host) {
  HMEMHEAP heap = nullptr;
  void *entry = nullptr;
  if (host.vector().MEM_HeapOpen(&heap, 4, 7) != 0) return;
  show(host, "MEM_HeapAllocEntry", host.vector().MEM_HeapAllocEntry(heap, -1, &entry));
  host.vector().MEM_HeapClose(heap);
}

struct Node {
  Node *pNext;
};

void packACircle(refhost::Host &host) {
  Node node{&node};
  MemPackCB kinds{};
  kinds.Count = 1;
  kinds.Descriptors[0].Type = MEM_PACK_FIXED;
  kinds.Descriptors[0].FixedLen = sizeof(Node);
  kinds.Descriptors[0].SiblingOff = offsetof(Node, pNext);
  MemPackBlock *pFirst = nullptr;
  show(host, "MEM_Pack", host.vector().MEM_Pack(&kinds, &node, 4096, &pFirst));
  if (pFirst != nullptr) host.vector().MEM_Free(pFirst, 4096, 0);
}

void lookForWhatIsNotThere(refhost::Host &host) {
  const char *copy = nullptr;
  show(host, "MEM_SinkVerify", host.vector().MEM_SinkVerify("absent", &copy, nullptr));
}

void failInside(refhost::Host &host) {
  MEMCatCB text{};  // never opened
  show(host, "MEM_Cat", host.vector().MEM_Cat(&text, u"more"));
}

void runOutOfStorage(refhost::Host &host) {
  HMEMHEAP heap = nullptr;
  host.arm({.service = refhost::Service::GetStorage, .errorCode = 71, .errorText = "PoolIsFull"});
  show(host, "MEM_EHeapOpen", host.vector().MEM_EHeapOpen(&heap, 4, 7));
  host.disarm();
}

void readADamagedText(refhost::Host &host) {
  constexpr std::string_view kText = "(0000000032,0000000001)(31<1N5>)";
  const MEMStructDef noKinds{};
  HMEMHEAP heap = nullptr;
  void *root = nullptr;
  if (host.vector().MEM_HeapOpen(&heap, 4, 7) != 0) return;
  show(host, "MEM_Port1StrToStruct",
       host.vector().MEM_Port1StrToStruct(&noKinds, kText.data(), kText.size(), heap, &root));
  host.vector().MEM_HeapClose(heap);
}

std::int16_t bucketOf(const void *key) {
  return *static_cast<const std::uint8_t *>(key) % 8;
}

void findTheServiceThatFails(refhost::Host &host) {
  HMEMHASH table = nullptr;
  host.setTraceFlags(MEM_TRACE_ENTRY | MEM_TRACE_EXIT);
  show(host, "MEM_HashOpen", host.vector().MEM_HashOpen(&table, 0, 8, 7, bucketOf, 4096, 7));
  host.setTraceFlags(0);
}

// The host is notified of every failure, whoever made the call.
void logEveryFailure(refhost::Host &host) {
  host.text().ReportError = [](char *text, const char *detail) {
    std::printf("  reported: %s%s\n", text, detail);
  };
  failInside(host);
  host.restoreSlots();
}

}  // namespace

int main() {
  const refhost::Library library(refhost::Library::besideProgram());
  refhost::Session session(library.bindEntry(), {.report = false, .keepLeaks = false});
  refhost::Host &host = session.host();
  host.onTrace([](const refhost::TraceRecord &record) {
    const bool isException = record.type == "EXCP";
    std::printf("  %s %s\n", record.type.c_str(),
                isException ? record.text.c_str() : record.function.c_str());
  });
  refuseAnArgument(host);
  packACircle(host);
  lookForWhatIsNotThere(host);
  failInside(host);
  runOutOfStorage(host);
  readADamagedText(host);
  findTheServiceThatFails(host);
  logEveryFailure(host);
  std::printf("not returned: %u bytes\n", static_cast<unsigned>(host.account(7).liveBytes));
  return 0;
}
