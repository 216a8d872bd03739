// Every function of the C++ header, compiled without exceptions and run-time type information. It
// is never run.
#include <list>
#include <vector>

#include "qj7mem00/mem.hpp"

struct Other;
struct Node {
  Node *pNext;
  const char *pName;
  char16_t *pTitle;
  Other *pOther;
  std::uint32_t id;
  std::uint32_t count;
};
struct Other {
  Other *pNext;
  const Node *pNode;
};

constexpr auto kPackTable = mem::packTable(
    mem::segment<Node>(mem::sibling(MEM_FIELD(Node, pNext)), mem::child(MEM_FIELD(Node, pName)),
                       mem::child(MEM_FIELD(Node, pTitle)), mem::child(MEM_FIELD(Node, pOther))),
    mem::segment<Other>(mem::sibling(MEM_FIELD(Other, pNext)),
                        mem::reference(MEM_FIELD(Other, pNode))));

inline constexpr mem::PortTable kPortTable{
    mem::structure<Node, 1>(mem::field<1>(MEM_FIELD(Node, pNext)).required(),
                            mem::field<2>(MEM_FIELD(Node, pName)).defaultText("none"),
                            mem::field<3>(MEM_FIELD(Node, pTitle)).notPorted(),
                            mem::field<4>(MEM_FIELD(Node, pOther)),
                            mem::field<5>(MEM_FIELD(Node, id)).defaultNumber<7>()),
    mem::structure<Other, 2>(mem::field<1>(MEM_FIELD(Other, pNode)))};

namespace {

template <class Value>
Value need(mem::Result<Value> result) noexcept {
  if (!result.isOk()) std::puts(result.error().line().text);
  return std::move(result).value();
}

void need(const mem::Status &status) noexcept {
  if (!status.isOk()) std::puts(status.error().line().text);
}

void useResources(mem::Heap &heap, mem::EnhancedHeap &enhanced, mem::CellPool<Node> &pool) {
  mem::HeapResource first(heap);
  mem::HeapResource second(enhanced);
  mem::CellResource cells(pool, &first);
  std::pmr::vector<int> numbers(&first);
  std::pmr::vector<int> others(&second);
  std::pmr::list<int> list(&cells);
  numbers.push_back(1);
  others.push_back(2);
  list.push_back(3);
}

void useHeaps(const mem::Context &context) noexcept {
  mem::Heap heap = need(mem::Heap::open(context, {.areaKb = 4, .subPool = 2}));
  need(heap.makeChain(MEM_FIELD(Node, pNext), 3));
  need(heap.copyText("narrow"));
  need(heap.copyText(u"wide"));
  mem::EnhancedHeap enhanced = need(mem::EnhancedHeap::open(context));
  need(enhanced.free(need(enhanced.make<Node>())));
  need(enhanced.free(need(enhanced.allocate(9)), 9));
  mem::CellPool<Node> pool = need(mem::CellPool<Node>::open(context));
  useResources(heap, enhanced, pool);
  need(heap.close());
}

void usePoolAndTable(const mem::Context &context) noexcept {
  mem::CellPool<Node> pool = need(mem::CellPool<Node>::open(context));
  need(pool.free(need(pool.make())));
  need(pool.clear());
  using Table = mem::HashTable<Node, std::uint32_t>;
  Table table = need(Table::open<64>(context, MEM_FIELD(Node, id)));
  need(table.insert({}));
  need(table.find(1));
  need(table.remove(1));
  need(table.forEach([](Node &node) { ++node.count; }));
}

void useTexts(const mem::Context &context) noexcept {
  mem::ConcatBuffer buffer = need(mem::ConcatBuffer::open(context));
  need(buffer.append(u"text"));
  need(buffer.append(std::u16string(u"text")));
  const mem::SunkString narrow = need(mem::SunkString::sink(context, "text"));
  const mem::WideSunkString wide = need(mem::WideSunkString::sink(context, u"text"));
  need(mem::SunkString::find(context, narrow.text()));
  need(mem::WideSunkString::find(context, wide.text()));
}

void useChainAndString(const mem::Context &context, const Node &node) noexcept {
  mem::PackedChain chain = need(mem::PackedChain::pack(context, kPackTable, node));
  for (const std::span<const std::byte> used : chain) need(mem::PackedChain::load(context, used));
  need(chain.unpack(kPackTable));
  need(chain.unpackUnchecked(kPackTable));
  need(chain.unpackUnchecked(kPackTable.controlBlock()));
  mem::Heap heap = need(mem::Heap::open(context));
  const mem::PortString string = need(mem::PortString::write(context, kPortTable, node));
  for (const std::string_view piece : string) {
    need(mem::readPortString<Node>(context, heap, kPortTable, piece));
  }
  need(mem::readPortString<Node>(context, heap, kPortTable, string));
  need(mem::readPortStringUnchecked<Node>(context, heap, kPortTable, "text"));
  need(mem::readPortStringUnchecked<Node>(context, heap, kPortTable, string));
}

}  // namespace

void useEverything(const MEMFunctionVector &vector, mem::Context::ThreadEnvFn *pThreadEnv);
void useEverything(const MEMFunctionVector &vector, mem::Context::ThreadEnvFn *pThreadEnv) {
  const mem::Context context(vector, pThreadEnv);
  const mem::RunningProcess process = need(mem::RunningProcess::start(context));
  const mem::ActiveThread thread = need(mem::ActiveThread::activate(context));
  useHeaps(context);
  usePoolAndTable(context);
  useTexts(context);
  useChainAndString(context, Node{});
}
