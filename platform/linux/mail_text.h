// How texts are written so that they pass through mail servers, which promise to carry short lines
// of ASCII and nothing else.
#pragma once

#include <cstdint>
#include <string>

// Returns `text` (null: none) as a text in UTF-8: a byte that belongs to no character becomes
// U+FFFD, a character that was cut off at the end is left out.
std::string mailUtf8(const char* text);

// Returns `text` as the value of the header "Subject": one blank for each control character or line
// end, encoded words (RFC 2047) in lines of up to 76 characters where it is not plain.
std::string mailSubject(const std::string& text);

// Returns the header "Content-Disposition" of an attachment called as the last part of `path` is.
// Control characters become "_". Null or no last part: "attachment".
std::string mailDisposition(const char* path);

// Returns `text` in quoted-printable (RFC 2045), each kind of line end as CR LF, with one at the
// end. No line is longer than 76 characters.
std::string mailQuotedPrintable(const std::string& text);

// Returns the header "Date" of that moment, in local time.
std::string mailDate(std::int64_t seconds);
