#ifndef CHECKSUM_H
#define CHECKSUM_H

#include <stddef.h>
#include <stdint.h>

uint32_t checksum(const unsigned char *data, size_t length);

#endif
