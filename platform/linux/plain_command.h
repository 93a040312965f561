// What the shell may be given: command lines that mean the same whatever the words in them say.
#pragma once

#include <cstddef>
#include <cstring>

// Returns true iff `command` is a program and plain words: letters, digits and "_-./:=", with
// single blanks between, and perhaps " &" at the end. There is nothing in it that the shell would
// expand, quote, redirect, or take for a second command, nor a way up a path; the program is no
// option and no assignment. So a word that was put together from what others have named can be a
// wrong word, but never a command of its own.
inline bool isPlainCommand(const char* command) {
  constexpr char kLetters[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:=";
  std::size_t words = 0;
  for (const char* word = command; *word != '\0'; ++words) {
    const std::size_t length = std::strspn(word, kLetters);
    if (length == 0) return words > 0 && std::strcmp(word, "&") == 0;
    const auto has = [=](const char* text) {
      const char* const found = std::strstr(word, text);
      return found != nullptr && found < word + length;
    };
    if (has("..") || (words == 0 && (*word == '-' || has("=")))) return false;
    word += length;
    if (*word == '\0') return true;
    if (*word++ != ' ') return false;
  }
  return false;  // nothing at all, or a blank at the end
}
