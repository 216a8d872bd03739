/* A check of a port string from an unknown source, before it is read. A reader writes only to the
 * structures that it makes, whatever the text contains. But it does not compare kinds and counts
 * with the definitions, so a component that follows the pointers must. */
#ifndef PORT_CHECK_H
#define PORT_CHECK_H

#include "qj7mem00/qj7mem00.h"

#ifdef __cplusplus
extern "C" {
#endif

/* True if a writer with these definitions can have written this text of `length` characters for a
 * structure `rootID`. Fields may be missing:
 *  - every pointer leads to, and every embedded text is, a structure of the field's SubStructID;
 *  - fields are in the order of the table, each once, and none is unknown;
 *  - a repeat field occurs as often as the text and the count field say;
 *  - numbers of up to 32 bits fit their fields, and nothing follows the last structure.
 *
 * Allocates four bytes for each structure with malloc. The time is proportional to the length of
 * the text times the length of the table. */
int isAsDefined(const MEMStructDef *defs, uint32_t rootID, const char *text, size_t length);

#ifdef __cplusplus
}
#endif

#endif
