/* What a Modbus RTU master and a slave share: the functions they know, and the check sum of a frame. */
#ifndef EXAMPLES_MODBUS_H
#define EXAMPLES_MODBUS_H

#include <stddef.h>

enum { READ = 3, WRITE = 6, LONGEST_FRAME = 256 };

static unsigned int crc16(const unsigned char *bytes, size_t count) {
    unsigned int crc = 0xffff, bit;
    while (count-- > 0)
        for (crc ^= *bytes++, bit = 0; bit < 8; ++bit)
            crc = crc & 1 ? crc >> 1 ^ 0xa001 : crc >> 1;
    return crc;
}

/* Puts it behind so many bytes, the only number that begins with its low byte. Returns the frame's length. */
static unsigned int add_crc(unsigned char *frame, size_t count) {
    const unsigned int crc = crc16(frame, count);
    frame[count] = (unsigned char)crc;
    frame[count + 1] = (unsigned char)(crc >> 8);
    return (unsigned int)count + 2;
}

/* Over a frame and its own check sum it is 0. */
static int is_broken(const unsigned char *frame, size_t length) {
    return crc16(frame, length) != 0;
}

#endif
