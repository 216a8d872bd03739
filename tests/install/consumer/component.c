#include "component.h"

typedef struct Number {
  struct Number *pNext;
  int32_t Value;
} Number;

int32_t sumOfList(const MEMFunctionVector *mem, int32_t count) {
  HMEMHEAP heap = NULL;
  if (mem->MEM_HeapOpen(&heap, 4, 0) != 0) return -1;
  int32_t sum = -1;
  void *first = NULL;
  if (mem->MEM_HeapAllocLongMultEntries(heap, sizeof(Number), count, 0, &first) == 0) {
    int32_t value = 0;
    sum = 0;
    for (Number *number = first; number != NULL; number = number->pNext) number->Value = ++value;
    for (Number *number = first; number != NULL; number = number->pNext) sum += number->Value;
  }
  return mem->MEM_HeapClose(heap) == 0 ? sum : -1;
}
