// Picture formats.
#pragma once

// Makes an AVI file of one MPEG-4 key frame, `data` being the 20-byte stream header and the
// picture; it shows for a second. Returns the length written into `buffer`; -1, with nothing
// written, when there is no stream header that tells a picture of 1 to 2048 pixels each side, when
// nothing follows it, and when `capacity` is too small. Any bytes and lengths will do. The buffers
// must not overlap. Any thread.
long i2avi(const char* data, long length, char* buffer, long capacity);

// Writes `length` bytes as lower-case hexadecimal digits, two each, and a terminating 0 into
// `text`; as many whole bytes as fit into `capacity`. Returns the number of digits. Any thread.
long bin2hex(const char* data, long length, char* text, long capacity);

// Reads pairs of hexadecimal digits of either case into `data`, until the text ends, something else
// comes or `capacity` bytes are full. Returns the number of bytes. Any thread.
long hex2bin(const char* text, char* data, long capacity);
