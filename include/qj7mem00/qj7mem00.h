/** @file qj7mem00.h
 * Everything that a host or a caller of QJ7MEM00 includes. C11 and C++20. */
#ifndef QJ7MEM00_QJ7MEM00_H
#define QJ7MEM00_QJ7MEM00_H

#include "membase.h"
#include "memcat.h"
#include "memerr.h"
#include "memhost.h"
#include "mempack.h"
#include "memport.h"
#include "memproc.h"
#include "memvect.h"

#endif
