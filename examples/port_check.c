#include "port_check.h"

#include <stdlib.h>
#include <string.h>

struct Check {
  const MEMStructDef *defs;
  const char *at;
  const char *end;
  uint64_t count;    /* structures of the text */
  uint32_t *kinds;   /* StructID of each */
  int kindsAreKnown; /* 1 in the second pass, which checks where pointers lead */
};

static int take(struct Check *c, char wanted) {
  if (c->at == c->end || *c->at != wanted) return 0;
  ++c->at;
  return 1;
}

static size_t takeAll(struct Check *c, const char *wanted) {
  const char *begin = c->at;
  while (c->at != c->end && *c->at != '\0' && strchr(wanted, *c->at) != NULL) ++c->at;
  return (size_t)(c->at - begin);
}

/* Digits in reverse order; without a digit the number is 0. Readers accept numbers of more than 32
 * bits and wrap them; this check refuses them. */
static int takeNumber(struct Check *c, int64_t most, uint32_t *number) {
  int64_t value = 0;
  for (int64_t weight = 1; c->at != c->end && *c->at >= '0' && *c->at <= '9'; weight *= 10) {
    if (weight > 1000000000) return 0;
    value += weight * (*c->at++ - '0');
  }
  *number = (uint32_t)value;
  return value <= most;
}

static int takeQuoted(struct Check *c, char quote) {
  if (!take(c, quote)) return 0;
  while (c->at != c->end) {
    const char first = *c->at++;
    if (first == quote) return 1;
    if (first != '/') continue;
    if (c->at == c->end) return 0;
    const char escaped = *c->at++;
    if (quote == '"' || escaped < '0' || escaped > '9') continue;
    if (c->end - c->at < escaped - '0') return 0;
    c->at += escaped - '0'; /* characters of 6 bits each */
  }
  return 0;
}

/* A structure text with the identifier `wantedID`, 0 for any; stores its identifier in `id`. */
static int takeStructure(struct Check *c, uint32_t wantedID, uint32_t *id, int nesting);

/* Stores an integer of up to 32 bits in `value`, unless it is negative; else `value` is kept. */
static int takeValue(struct Check *c, const MEMFieldDef *field, int nesting, int64_t *value) {
  static const int64_t most[] = {INT16_MAX, UINT16_MAX, INT32_MAX, UINT32_MAX};
  const int type = field->Type;
  const int isSigned = type == MEM_PORT_SHORT || type == MEM_PORT_LONG || type == MEM_PORT_BIGINT;
  uint32_t number = 0;
  switch (type) {
    case MEM_PORT_CHAR:
    case MEM_PORT_CHARSZ:
      return takeQuoted(c, '"');
    case MEM_PORT_WCHAR:
    case MEM_PORT_WCHARSZ:
      return takeQuoted(c, '\'');
    case MEM_PORT_PSTR: /* a null pointer has no quoted text */
      if (!take(c, 'X')) return 0;
      if (takeAll(c, "0123456789") == 0 && c->at != c->end && *c->at != '"') return 1;
      return takeQuoted(c, '"');
    case MEM_PORT_WPSTR:
      if (!take(c, 'x')) return 0;
      return takeAll(c, "0123456789;") == 0 || takeQuoted(c, '\'');
    case MEM_PORT_BIN:
      return take(c, 'H') && takeAll(c, "0123456789ABCDEF") % 2 == 0;
    case MEM_PORT_BIT:
      return take(c, 'B') && takeAll(c, "01") == 8;
    case MEM_PORT_PNT: /* leads to a structure of the field's kind */
      if (!take(c, 'S') || !takeNumber(c, (int64_t)c->count, &number)) return 0;
      return number == 0 || !c->kindsAreKnown || c->kinds[number - 1] == field->SubStructID;
    case MEM_PORT_SUBSTRUCTURE:
      return take(c, 'E') && takeStructure(c, field->SubStructID, &number, nesting + 1);
    case MEM_PORT_BIGINT:
    case MEM_PORT_UBIGINT:
      return take(c, 'N') && (!isSigned || takeAll(c, "-") <= 1) && takeAll(c, "0123456789") <= 20;
    default:
      if (type < MEM_PORT_SHORT || type > MEM_PORT_ULONG || !take(c, 'N')) return 0;
      if (isSigned && take(c, '-')) return takeNumber(c, most[type - MEM_PORT_SHORT] + 1, &number);
      if (!takeNumber(c, most[type - MEM_PORT_SHORT], &number)) return 0;
      *value = number;
      return 1;
  }
}

static int takeStructure(struct Check *c, uint32_t wantedID, uint32_t *id, int nesting) {
  const MEMStructDef *def = c->defs;
  uint32_t elements = 0;
  int64_t written = 0;
  int64_t counted = -1;
  if (!take(c, '(') || !takeNumber(c, UINT32_MAX, id)) return 0;
  while ((int32_t)def->StructID > 0 && def->StructID != *id) ++def;
  if ((int32_t)def->StructID < 1 || def->FieldCount < 1 || nesting > MEM_PORT_MAX_NESTING) return 0;
  if (wantedID != 0 && *id != wantedID) return 0;
  const int repeats = def->CountField != MEM_PORT_NO_COUNT;
  if (repeats && !(take(c, ',') && takeNumber(c, INT32_MAX, &elements))) return 0;
  if (!take(c, '<')) return 0;
  const MEMFieldDef *field = def->Fields;
  const MEMFieldDef *const last = field + def->FieldCount - 1;
  do { /* each field once, in the order of the table; the repeat field once for each element */
    int64_t value = -1;
    uint32_t fieldID = 0;
    if (!takeNumber(c, UINT32_MAX, &fieldID)) return 0;
    while (field <= last && field->FieldID != fieldID) ++field;
    if (field > last || !takeValue(c, field, nesting, &value)) return 0;
    if (repeats && field == def->Fields + def->CountField) counted = value;
    if (repeats && field == last) {
      ++written;
    } else {
      ++field;
    }
  } while (take(c, '/'));
  if (!take(c, '>') || !take(c, ')')) return 0;
  if (!repeats) return 1;
  if (counted >= 0 && def->CountIsLength && last->Length > 0) {
    counted = (counted - def->Length) / last->Length + 1; /* as writers calculate it */
  }
  return counted == elements && (written == elements || (last->NotPorted && written == 0));
}

int isAsDefined(const MEMStructDef *defs, uint32_t rootID, const char *text, size_t length) {
  struct Check check = {defs, text, text + length, 0, NULL, 0};
  int isGood = 1;
  if (length < MEM_PORT_HEADER_LEN) return 0;
  for (int i = 12; i < 22; ++i) {
    if (text[i] < '0' || text[i] > '9') return 0;
    check.count = check.count * 10 + (uint64_t)(text[i] - '0');
  }
  if (check.count < 1 || check.count > length) return 0;
  check.kinds = calloc((size_t)check.count, sizeof *check.kinds);
  if (check.kinds == NULL) return 0;
  for (; isGood && check.kindsAreKnown <= 1; ++check.kindsAreKnown) {
    check.at = text + MEM_PORT_HEADER_LEN;
    for (uint64_t i = 0; isGood && i < check.count; ++i) {
      isGood = takeStructure(&check, i == 0 ? rootID : 0, &check.kinds[i], 0);
    }
    isGood = isGood && check.at == check.end;
  }
  free(check.kinds);
  return isGood;
}
