/* A component in plain C11, with the smallest host that it needs: counts the words of a text in a
 * hash table of the library and prints them. The host takes storage from malloc, supports one
 * thread and writes failures to stderr; it neither traces nor protects storage.
 *
 *   c_example [LIBRARY]    LIBRARY is the library's path; by default the one in this folder */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef _WIN32
#include <windows.h>
#define LIBRARY_NAME "QJ7MEM00.dll"
#else
#include <dlfcn.h>
#define LIBRARY_NAME "./QJ7MEM00.so"
#endif

#include "qj7mem00/qj7mem00.h"

/* --- The host --- */

static MEMThreadEnv thread;
static void *anchor;
static const MEMMessageRow *messages;
static int areas; /* allocated and not returned */

static uint16_t getAnchor(int32_t zero, int32_t component, void **ppAnchor) {
  (void)zero, (void)component;
  *ppAnchor = anchor;
  return 0;
}

static void setAnchor(int32_t zero, int32_t component, void *pAnchor) {
  (void)zero, (void)component;
  anchor = pAnchor;
}

/* One thread never waits for another: a gate is only a number. */
static uint16_t createGate(uint32_t *phGate) {
  *phGate = 1;
  return 0;
}
static uint16_t acquireGate(uint32_t hGate) {
  (void)hGate;
  return 0;
}
static void noGate(uint32_t hGate) {
  (void)hGate;
}

static uint16_t getStorage(void **ppArea, uint32_t length, uint16_t subPool, uint16_t kind) {
  (void)subPool, (void)kind;
  *ppArea = malloc(length > 0 ? length : 1);
  if (*ppArea == NULL) return 8;
  ++areas;
  return 0;
}
static void freeStorage(void *pArea, uint32_t length, uint16_t subPool) {
  (void)length, (void)subPool;
  free(pArea);
  --areas;
}
static uint16_t getPoolStorage(uint16_t subPool, uint32_t length, void **ppArea) {
  return getStorage(ppArea, length, subPool, 0);
}
static void freePoolStorage(uint16_t subPool, void *pArea) {
  freeStorage(pArea, 0, subPool);
}
static uint16_t protectStorage(void *pArea, uint32_t length, uint16_t subPool, uint16_t mode) {
  (void)pArea, (void)length, (void)subPool, (void)mode;
  return 0;
}
static uint16_t checkStorage(const void *pArea, uint32_t length) {
  (void)length;
  return pArea == NULL;
}

static void registerMessages(int32_t component, const MEMMessageRow *pTable) {
  (void)component;
  messages = pTable;
}

static void enterFrame(MEMTraceFrame *pFrame, int32_t component) {
  (void)component;
  pFrame->pThreadEnv = &thread; /* without a trace buffer nothing is traced */
  pFrame->TraceFlags = 0;
}
static void leaveFrame(MEMTraceFrame *pFrame, int32_t component) {
  (void)pFrame, (void)component;
}

static void reportError(char *pErrorText, const char *pDetail) {
  const MEMMessageRow *row = messages;
  while (row != NULL && row->Code != 0 && row->Code != thread.Error.Code) ++row;
  fprintf(stderr, "%u %s: %s %s\n", (unsigned)thread.Error.Code, row != NULL ? row->Message : "",
          pErrorText, pDetail);
}

static MEMRuntimeServices runtime = {
    .GetAnchor = getAnchor,
    .SetAnchor = setAnchor,
    .CreateGate = createGate,
    .DeleteGate = noGate,
    .AcquireGate = acquireGate,
    .ReleaseGate = noGate,
    .GetPoolStorage = getPoolStorage,
    .FreePoolStorage = freePoolStorage,
    .GetStorage = getStorage,
    .FreeStorage = freeStorage,
    .RegisterMessages = registerMessages,
    .ProtectStorage = protectStorage,
    .EnterFrame = enterFrame,
    .LeaveFrame = leaveFrame,
    .CheckStorage = checkStorage,
};
static MEMTraceServices trace;
static MEMTextServices text = {.ReportError = reportError};
static MEMFunctionVector mem;

/* The first four cells lead to the vectors that the library uses; it only keeps the others. */
static void *cells[MEM_HOST_VECTORS] = {&runtime, &trace, &text, &mem};
static void **hostVectors[MEM_HOST_VECTORS];
static void *otherCell;
static void **serviceVectors[MEM_SERVICE_VECTORS];

static MEMBindFn *loadLibrary(const char *path) {
  MEMBindFn *entry = NULL;
#ifdef _WIN32
  const HMODULE module = LoadLibraryA(path);
  const FARPROC found = module != NULL ? GetProcAddress(module, MEM_BIND_ENTRY_NAME) : NULL;
#else
  void *const module = dlopen(path, RTLD_NOW);
  void *const found = module != NULL ? dlsym(module, MEM_BIND_ENTRY_NAME) : NULL;
#endif
  memcpy(&entry, &found, sizeof entry);
  return entry;
}

static void bindLibrary(MEMBindFn *entry) {
  for (int i = 0; i < MEM_HOST_VECTORS; ++i) hostVectors[i] = &cells[i];
  for (int i = 0; i < MEM_SERVICE_VECTORS; ++i) serviceVectors[i] = &otherCell;
  entry(hostVectors, serviceVectors, NULL, 0, MEM_MODE_BIND);
}

/* --- The component --- */

enum { WORD_LEN = 16, LAST_BUCKET = 30, AREA_KB = 4, SUB_POOL = 7 };

typedef struct Word {
  char text[WORD_LEN]; /* the key, filled with zeros */
  uint32_t count;
} Word;

static int16_t bucketOf(const void *pKey) {
  const unsigned char *const key = pKey;
  unsigned sum = 0;
  for (int i = 0; i < WORD_LEN; ++i) sum = 31 * sum + key[i];
  return (int16_t)(sum % (LAST_BUCKET + 1));
}

static int16_t printWord(void *pRecord, void *pParm) {
  const Word *const word = pRecord;
  uint32_t *const total = pParm;
  printf("%-10.16s %u\n", word->text, (unsigned)word->count);
  *total += word->count;
  return 0;
}

/* Counts one word. Returns 0 or the result of the service that failed. */
static int16_t countWord(HMEMHASH table, const char *start, size_t length) {
  Word word = {{0}, 0};
  memcpy(word.text, start, length < WORD_LEN ? length : WORD_LEN);
  void *stored = NULL;
  const int16_t result = mem.MEM_HashInsEntry(table, sizeof word, &word, &stored);
  if (result != 0 && result != MEMERR_HASHDKEY) return result; /* a duplicate word is no failure */
  ++((Word *)stored)->count;
  return 0;
}

static int16_t countWords(const char *sentence) {
  HMEMHASH table = NULL;
  int16_t result = mem.MEM_HashOpen(&table, 0, WORD_LEN, LAST_BUCKET, bucketOf, AREA_KB, SUB_POOL);
  if (result != 0) return result;
  while (result == 0 && *sentence != '\0') {
    const size_t length = strcspn(sentence, " ");
    if (length > 0) result = countWord(table, sentence, length);
    sentence += length + strspn(sentence + length, " ");
  }
  uint32_t total = 0;
  if (result == 0) result = mem.MEM_HashScan(table, printWord, &total);
  if (result == 0) printf("%u words\n", (unsigned)total);
  return mem.MEM_HashClose(table) == 0 ? result : -1;
}

int main(int argc, char **argv) {
  const char *const path = argc > 1 ? argv[1] : LIBRARY_NAME;
  MEMBindFn *const entry = loadLibrary(path);
  if (entry == NULL) {
    fprintf(stderr, "c_example: cannot load %s\n", path);
    return 1;
  }
  bindLibrary(entry);
  int16_t result = mem.MEM_ProcessInit();
  if (result == 0) result = mem.MEM_ThreadAct();
  if (result == 0) result = countWords("a rose is a rose is a rose");
  mem.MEM_ThreadTerm();
  mem.MEM_ProcessTerm();
  entry(NULL, NULL, NULL, 0, 0);
  printf("%d areas not returned\n", areas);
  return result == 0 && areas == 0 ? 0 : 1;
}
