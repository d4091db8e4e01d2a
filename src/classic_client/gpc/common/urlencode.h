// The plug-in's own percent-encoding of message texts for URLs.
#pragma once

// Copies ASCII letters and digits of `src` to `dst` and writes every other byte as "%" and two
// upper-case hexadecimal digits. Encoding stops at the end of `src` or once the output position
// reaches size - 2; an escape begun below that bound is written whole, so `dst` must hold
// size + 1 bytes. The output is always terminated (empty for a size of 2 or less, or an empty
// source). Returns `dst`, or null for a null `src` or `dst`.
char* URLEncode(const char* src, char* dst, int size);
