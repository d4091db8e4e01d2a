// Bounds-checked string and memory routines.
//
// Every routine takes explicit maximum lengths. Callers that do not know the length of a text pass
// RSIZE_MAX_STR (0x7fffffff); larger maxima are refused as caller errors. A routine that finds one
// of its constraints violated (null pointer, zero or excessive maximum, unterminated text, overlap,
// too little room) reports it to the installed constraint handler, leaves its destination
// untouched and returns that non-zero code. On success it returns EOK (0) and hands its result
// (comparison indicator, position) through its out-parameter.
//
// The routines have C++ linkage on purpose: a browser process may carry another library exporting
// C functions of these names with smaller limits, and the plug-in must never bind to those.
#pragma once

#include <cstddef>

#ifndef GPC_SAFE_LIB_TYPES_DEFINED
#define GPC_SAFE_LIB_TYPES_DEFINED
typedef size_t rsize_t;
typedef int errno_t;
#endif

// The largest maximum length accepted for texts and memory blocks.
#define RSIZE_MAX_STR 0x7fffffffUL
#define RSIZE_MAX_MEM 0x7fffffffUL
#ifndef RSIZE_MAX
#define RSIZE_MAX RSIZE_MAX_MEM
#endif

#ifndef EOK
#define EOK 0
#endif
#define ESNULLP 400   // null pointer
#define ESZEROL 401   // zero maximum length
#define ESLEMIN 402   // length below its minimum
#define ESLEMAX 403   // length above RSIZE_MAX_STR / RSIZE_MAX_MEM
#define ESOVRLP 404   // source and destination overlap
#define ESEMPTY 405   // empty text
#define ESNOSPC 406   // destination too small
#define ESUNTERM 407  // text not terminated within its maximum
#define ESNODIFF 408  // no difference
#define ESNOTFND 409  // not found (a result, not a constraint violation: the handler is not called)

// Receives each violated constraint: a message naming the routine and the constraint, a
// reserved pointer (always null) and the code the routine returns.
typedef void (*constraint_handler_t)(const char* msg, void* ptr, errno_t error);

// Installs `handler` and returns the one it replaces. A null handler restores the default,
// ignore_handler_s, which neither logs nor aborts. Safe to call from any thread.
constraint_handler_t set_constraint_handler_s(constraint_handler_t handler);

// The default handler: does nothing.
void ignore_handler_s(const char* msg, void* ptr, errno_t error);

// The length of `dest`, counting at most `dmax` characters (dmax when no NUL lies within them).
// 0 for a null text or a zero maximum; 0 after reporting ESLEMAX for a maximum above RSIZE_MAX_STR.
rsize_t strnlen_s(const char* dest, rsize_t dmax);

// Compares `dest` (terminated within `dmax` characters) with `src`; *indicator receives <0, 0 or >0.
errno_t strcmp_s(const char* dest, rsize_t dmax, const char* src, int* indicator);

// `c` with an ASCII capital lower-cased. Unlike tolower, whatever the process's locale: under a
// Turkish one, tolower('I') is not 'i'.
unsigned char AsciiLower(unsigned char c);

// As strcmp_s, ignoring the case of ASCII letters.
errno_t strcasecmp_s(const char* dest, rsize_t dmax, const char* src, int* indicator);

// Finds the text `src` (its first `slen` characters at most) within the first `dmax` characters
// of `dest`. *substring receives its first occurrence, or null with ESNOTFND. An empty `src`
// is found at `dest`.
errno_t strstr_s(char* dest, rsize_t dmax, const char* src, rsize_t slen, char** substring);

// Finds the first `c` within the first `dmax` characters of `dest` (before its NUL). *first
// receives its position, or null with ESNOTFND.
errno_t strfirstchar_s(char* dest, rsize_t dmax, char c, char** first);

// Copies `slen` bytes into `dest`, which holds `dmax`. The two blocks must not overlap.
errno_t memcpy_s(void* dest, rsize_t dmax, const void* src, rsize_t slen);

// As memcpy_s, for blocks that may overlap.
errno_t memmove_s(void* dest, rsize_t dmax, const void* src, rsize_t slen);

// Compares the first `slen` bytes of `dest` (which holds `dmax`) and `src`; *diff receives the
// difference of the first differing bytes, or 0.
errno_t memcmp_s(const void* dest, rsize_t dmax, const void* src, rsize_t slen, int* diff);

// Sets the first `n` bytes of `dest` (which holds `dmax`) to `value`; never optimised away.
errno_t memset_s(void* dest, rsize_t dmax, int value, rsize_t n);
