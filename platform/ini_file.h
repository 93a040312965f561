// Values of ini files. Sections and keys are matched without regard to case; a file is parsed once
// and again when it has changed. A file that is missing or can't be read gives the defaults, and
// logs 2 "can't read %s" when it exists. Any thread.
#pragma once

// Returns the integer (decimal or 0x, saturated to 32 bit) of `key`. A value that is no number
// gives `fallback` and logs 2 "%s: [%s] %s is not a number: %s".
int getIniInt(const char* file, const char* section, const char* key, int fallback);

// As getIniInt(), for a decimal fraction.
double getInidouble(const char* file, const char* section, const char* key, double fallback);

// Copies the text of `key`, or `fallback`, into `buffer`, cut to `size` - 1 characters and always
// terminated. Returns its length.
int getIniStr(const char* file, const char* section, const char* key, char* buffer, int size,
              const char* fallback);

// For loops over numbered sections and keys whose upper end comes from a file: they cost what there
// is, not what the number says. Only plain decimal numbers count ("7", neither "07" nor "+7").

// Returns the highest number from 1 to `limit` that names a section with at least one key; 0 when
// there is none. Downwards: for (n = getIniSection(f, max); n > 0; n = getIniSection(f, n - 1)).
int getIniSection(const char* file, int limit);

// Returns the lowest number from `from` (1 or more) on that makes, written behind `prefix`, a key
// of `section` ("Start12"); 0 when there is none. `prefix` must not end in a digit.
int getIniKey(const char* file, const char* section, const char* prefix, int from);
