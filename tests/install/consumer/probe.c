/* Needs nothing but the headers and the module: loads it and unbinds it, which does nothing while
 * it is not bound. consumer_probe <path of the module> */
#include <qj7mem00/qj7mem00.h>
#include <stdio.h>
#include <string.h>

#ifdef _WIN32
#include <windows.h>

static MEMBindFn *bindEntry(const char *path) {
  const HMODULE module = LoadLibraryA(path);
  return module == NULL ? NULL : (MEMBindFn *)(void *)GetProcAddress(module, MEM_BIND_ENTRY_NAME);
}
#else
#include <dlfcn.h>

static MEMBindFn *bindEntry(const char *path) {
  void *const module = dlopen(path, RTLD_NOW);
  MEMBindFn *entry = NULL;
  if (module == NULL) return NULL;
  void *const symbol = dlsym(module, MEM_BIND_ENTRY_NAME);
  memcpy(&entry, &symbol, sizeof entry); /* ISO C has no cast from an object's address */
  return entry;
}
#endif

int main(int count, char **args) {
  MEMBindFn *const entry = count == 2 ? bindEntry(args[1]) : NULL;
  if (entry == NULL) return 1;
  entry(NULL, NULL, NULL, 0, 0);
  printf("the module is there\n");
  return 0;
}
