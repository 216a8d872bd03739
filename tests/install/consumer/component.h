/* A component in C: all that it knows of the library is the MEM function vector. */
#ifndef CONSUMER_COMPONENT_H
#define CONSUMER_COMPONENT_H

#include <qj7mem00/qj7mem00.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Makes a list of `count` numbers, 1 and up, in a heap of its own and returns their sum; -1 when a
 * service fails. */
int32_t sumOfList(const MEMFunctionVector *mem, int32_t count);

#ifdef __cplusplus
}
#endif

#endif
