#include "checksum.h"

/* Adler-32 of a buffer. */
uint32_t checksum(const unsigned char *data, size_t length)
{
    uint32_t a = 1, b = 0;
    for (size_t i = 0; i < length; ++i) {
        a = (a + data[i]) % 65521u;
        b = (b + a) % 65521u;
    }
    return (b << 16) | a;
}
