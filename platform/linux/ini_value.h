// Settings as the platform itself reads them: it has to tell an absent one from any default.
#pragma once

#include <cstddef>

// Copies the value of `key` into `buffer`, cut to `size` - 1 characters and terminated.
// Returns true iff the key is there; otherwise `buffer` is unchanged. Any thread, allocates nothing
// unless the file has changed.
bool iniText(const char* file, const char* section, const char* key, char* buffer,
             std::size_t size);

// As getIniInt(), for a key without a default. 0 on success; otherwise non-zero and `*value` is
// unchanged.
int iniInteger(const char* file, const char* section, const char* key, int* value);
