/* String builder and numeric helpers for DSP words. */
#ifndef TVOXSP_UTIL_H
#define TVOXSP_UTIL_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/*
 * A growable text buffer, always NUL-terminated: buffer[length] is NUL and length + 1 <= capacity.
 * Create it with a non-zero capacity; it doubles whenever an append needs more room. The record
 * carries pointers to four of its operations so that holders can call through it.
 */
typedef struct str_builder str_builder;
struct str_builder {
    char *buffer;
    uint64_t capacity;
    uint64_t length;
    void (*add_str)(str_builder *sb, const char *str, uint64_t len);
    void (*add_char)(str_builder *sb, char c);
    void (*add_int)(str_builder *sb, int32_t value, uint32_t base);
    const char *(*peek)(const str_builder *sb);
};

/* Every operation accepts a null builder and then does nothing (returning NULL or 0). */
str_builder *str_builder_create(uint64_t capacity);
void str_builder_destroy(str_builder *sb);
/* len 0 appends the whole text; otherwise exactly len bytes. */
void str_builder_add_str(str_builder *sb, const char *str, uint64_t len);
void str_builder_add_char(str_builder *sb, char c);
/* Base 16 appends "0x%x", every other base "%d". */
void str_builder_add_int(str_builder *sb, int32_t value, uint32_t base);
void str_builder_clear(str_builder *sb);
void str_builder_truncate(str_builder *sb, uint64_t len);
/* Removes len characters from the front. */
void str_builder_drop(str_builder *sb, uint64_t len);
uint64_t str_builder_len(const str_builder *sb);
/* The builder's own buffer, valid until the next change. */
const char *str_builder_peek(const str_builder *sb);
/* A copy of the text for the caller to free(); its length goes to *len when len is given. */
char *str_builder_dump(const str_builder *sb, uint64_t *len);

/* value in base 2..36 (lower-case digits) into buffer (room for 34 bytes); another base gives "".
 */
char *itoa(int32_t value, char *buffer, int32_t base);
/* value with bit sign_bit (0-31) as its sign: the bits above it become copies of it. */
int32_t sign_extend32(uint32_t value, uint32_t sign_bit);
/* The four bytes of value in reverse order. */
uint32_t endian_flip(uint32_t value);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_UTIL_H */
