/** @file qj7mem00.h
 * Everything that a host or a caller of QJ7MEM00 includes. C11 and C++11. */
#ifndef QJ7MEM00_QJ7MEM00_H
#define QJ7MEM00_QJ7MEM00_H

/* One clear message, instead of a page of errors with an older standard. */
#if defined(__cplusplus) && __cplusplus < 201103L && (!defined(_MSVC_LANG) || _MSVC_LANG < 201103L)
#error "qj7mem00.h needs C++11 or later; C++20 is what it is tested with: compile with -std=c++20"
#elif !defined(__cplusplus) && (!defined(__STDC_VERSION__) || __STDC_VERSION__ < 201112L)
#error "qj7mem00.h needs C11 or later: compile with -std=c11 (/std:c11)"
#else

#include "membase.h"
#include "memcat.h"
#include "memerr.h"
#include "memhost.h"
#include "mempack.h"
#include "memport.h"
#include "memproc.h"
#include "memvect.h"

#endif
#endif
