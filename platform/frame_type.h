// The types of what a camera's encoder delivers.
#pragma once

// A key picture starts with 'I' and goes on with 'i'; a predicted one with 'P' and 'p'.
constexpr char kTypeKey = 'I';
constexpr char kTypePredicted = 'P';
constexpr char kTypeKeyMore = 'i';
constexpr char kTypePredictedMore = 'p';
constexpr char kTypeJpeg = 'J';  // a whole picture

// Returns true iff such a chunk goes on with the picture of the one before.
constexpr bool goesOnWithPicture(char type) {
  return type == kTypeKeyMore || type == kTypePredictedMore;
}
