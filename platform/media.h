// Picture formats.
#pragma once

// Makes an AVI file of one MPEG-4 key frame, `data` being the 20-byte stream header and the
// picture. Returns the length written into `buffer`; 0 or less when the frame can't be converted or
// `capacity` is too small. Any thread.
long i2avi(const char* data, long length, char* buffer, long capacity);
