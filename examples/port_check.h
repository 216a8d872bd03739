/* What a careful caller looks at before it has a port string from elsewhere read. A reader touches
 * nothing but the structures that it makes, whatever the text says; but it does not compare kinds
 * and counts with the definitions, so a component that follows the pointers has to. */
#ifndef PORT_CHECK_H
#define PORT_CHECK_H

#include "qj7mem00/qj7mem00.h"

#ifdef __cplusplus
extern "C" {
#endif

/* True for a text of `length` characters that a writer with these definitions can have written for
 * a structure `rootID`. Fields may be missing:
 *  - every pointer leads to, and every embedded text is, a structure of the field's SubStructID;
 *  - fields stand in the order of the table, each once, and none is unknown;
 *  - a repeat field comes as often as the text and the count field say;
 *  - numbers of up to 32 bits fit their fields, and nothing stands behind the last structure.
 *
 * Takes storage for a number for each structure from malloc, and time in proportion to the text,
 * times the length of the table. */
int isAsDefined(const MEMStructDef *defs, uint32_t rootID, const char *text, size_t length);

#ifdef __cplusplus
}
#endif

#endif
