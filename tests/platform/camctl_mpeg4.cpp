// What camctl makes of the frames of an MPEG-4 stream.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "capture/chunk_trailer.h"
#include "platform/media.h"
#include "tools/camctl/frame_chunks.h"
#include "tools/camctl/mpeg4_stream.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// --- chunks of a frame ---

struct Packed {
  char type;
  std::string data;
};

// A frame's payload of just `largest` bytes, so that a sanitizer sees every byte too many.
class Payload {
 public:
  explicit Payload(std::size_t largest) : bytes_(new char[largest]), largest_(largest) {
    std::memset(bytes_.get(), 'z', largest);
  }

  void pack(const std::vector<Packed>& chunks) {
    for (std::size_t i = 0; i < chunks.size(); ++i) {
      std::memcpy(bytes_.get() + length_, chunks[i].data.data(), chunks[i].data.size());
      length_ += chunks[i].data.size();
      trailer(i, chunks[i].type, i + 1 < chunks.size() ? kTrailerMore : kTrailerLast,
              static_cast<std::uint32_t>(chunks[i].data.size()));
    }
  }
  void trailer(std::size_t index, char type, char more, std::uint32_t length) {
    storeTrailer(bytes_.get() + largest_ - (index + 1) * kTrailerBytes, type, more, length);
  }
  void length(std::size_t value) { length_ = value; }
  char* bytes() { return bytes_.get(); }

  FrameKind kind() const { return content().kind(); }
  std::vector<std::string> chunks() const {
    std::vector<std::string> chunks;
    const FrameChunks frame = content();
    for (const Chunk& chunk : frame.chunks())
      chunks.push_back(chunk.type + std::string(":") + std::string(chunk.data, chunk.length));
    return chunks;
  }

 private:
  FrameChunks content() const { return {bytes_.get(), length_, largest_}; }

  std::unique_ptr<char[]> bytes_;
  std::size_t largest_;
  std::size_t length_ = 0;
};

TEST(ChunksOfAFrame, AreWhatItsTrailersTell) {
  Payload payload(200);
  payload.pack({{'I', "key"}, {'i', "more of it"}, {'P', "x"}});
  EXPECT_EQ(payload.kind(), FrameKind::kMpeg4);
  EXPECT_THAT(payload.chunks(), ElementsAre("I:key", "i:more of it", "P:x"));
}

TEST(ChunksOfAFrame, MayFillItToTheLastByte) {
  Payload payload(30);
  payload.pack({{'I', "nine byte"}, {'i', "nine more"}});
  EXPECT_THAT(payload.chunks(), ElementsAre("I:nine byte", "i:nine more"));
}

TEST(ChunksOfAFrame, AreNoneWhenTheTrailersContradictThePayload) {
  const auto damaged = [](const auto& damage) {
    Payload payload(40);
    payload.pack({{'I', "nine byte"}, {'i', "ten bytes."}});
    EXPECT_EQ(payload.kind(), FrameKind::kMpeg4);
    damage(&payload);
    EXPECT_THAT(payload.chunks(), IsEmpty());
    return payload.kind();
  };
  using P = Payload*;
  for (const std::uint32_t length :
       {0U, 8U, 10U, 19U, 20U, 40U, 41U, 0x7fffffffU, 0x80000000U, 0xffffffffU})
    EXPECT_EQ(damaged([=](P p) { p->trailer(0, 'I', 'o', length); }), FrameKind::kUnknown)
        << length;
  for (const std::uint32_t length : {0U, 9U, 11U, 0xfffffff7U, 0xffffffffU})
    EXPECT_EQ(damaged([=](P p) { p->trailer(1, 'i', 'x', length); }), FrameKind::kUnknown)
        << length;
  EXPECT_EQ(damaged([](P p) { p->trailer(0, 'I', 'x', 9); }), FrameKind::kUnknown);
  EXPECT_EQ(damaged([](P p) { p->trailer(0, 'I', 'y', 9); }), FrameKind::kUnknown);
  EXPECT_EQ(damaged([](P p) {
              p->trailer(0, 'I', 'o', 19);
              p->trailer(1, 'i', 'x', 0);
            }),
            FrameKind::kUnknown);
  EXPECT_EQ(damaged([](P p) { p->trailer(1, 'i', 'o', 10); }), FrameKind::kUnknown);
  EXPECT_EQ(damaged([](P p) { p->trailer(1, 'i', 'y', 10); }), FrameKind::kUnknown);
  EXPECT_EQ(damaged([](P p) { p->trailer(0, 'Q', 'o', 9); }), FrameKind::kUnknown);
  EXPECT_EQ(damaged([](P p) { p->trailer(1, 'J', 'x', 10); }), FrameKind::kUnknown);
  for (const std::size_t length :
       {std::size_t{0}, std::size_t{18}, std::size_t{20}, std::size_t{41}, ~std::size_t{0}})
    EXPECT_EQ(damaged([=](P p) { p->length(length); }), FrameKind::kUnknown) << length;
}

TEST(ChunksOfAFrame, NeverReachIntoTheTrailers) {
  for (const std::size_t length : {15, 20}) {
    Payload payload(20);
    payload.trailer(0, 'I', 'x', static_cast<std::uint32_t>(length));
    payload.length(length);
    EXPECT_EQ(payload.kind(), FrameKind::kUnknown) << length;
  }
}

TEST(ChunksOfAFrame, AreNoneInAJpegPicture) {
  const std::string jpeg("\xff\xd8\xff\xe0 picture", 12);
  Payload alone(40);
  std::memcpy(alone.bytes(), jpeg.data(), jpeg.size());
  alone.length(jpeg.size());
  EXPECT_EQ(alone.kind(), FrameKind::kJpeg);
  alone.length(41);
  EXPECT_EQ(alone.kind(), FrameKind::kUnknown);
  Payload withTrailer(40);
  withTrailer.pack({{'J', jpeg}});
  EXPECT_EQ(withTrailer.kind(), FrameKind::kJpeg);
  EXPECT_THAT(withTrailer.chunks(), IsEmpty());
  Payload full(jpeg.size());  // no room for a trailer
  std::memcpy(full.bytes(), jpeg.data(), jpeg.size());
  full.length(jpeg.size());
  EXPECT_EQ(full.kind(), FrameKind::kJpeg);
  // The middle of an MPEG-4 picture may look like one.
  Payload chunk(40);
  chunk.pack({{'i', jpeg}});
  EXPECT_EQ(chunk.kind(), FrameKind::kMpeg4);
}

TEST(ChunksOfAFrame, AreNoneInGarbage) {
  std::mt19937 random(3);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int round = 0; round < 20000; ++round) {
    const auto largest = static_cast<std::size_t>(byte(random) % 64);
    Payload payload(largest);
    for (std::size_t i = 0; i < largest; ++i)
      payload.bytes()[i] =
          static_cast<char>(round % 2 == 0 ? byte(random) : "Iipxo\0\0\1"[byte(random) % 8]);
    payload.length(static_cast<std::size_t>(byte(random) % 80));
    std::size_t sum = 0;
    for (const std::string& chunk : payload.chunks()) sum += chunk.size() - 2;
    ASSERT_LE(sum, largest);
  }
}

// --- pictures of a stream ---

// Headers by a letter.
std::string header(char name) {
  return std::string("\0\0\1\0\0\0\1\x20", 8) + std::string(12, name);
}
std::string text(char name) {
  char digits[41];
  bin2hex(header(name).data(), 20, digits, sizeof digits);
  return digits;
}

class StreamOfPictures : public testing::Test {
 protected:
  // Takes the next frame. Chunks are words, their first letter being their type.
  // Returns the pictures that became complete; those with a header begin with its letter and "|".
  std::vector<std::string> take(const std::string& frameText,
                                const std::vector<std::string>& words) {
    std::vector<Chunk> chunks;
    for (const std::string& word : words) chunks.push_back({word[0], word.data(), word.size()});
    std::vector<Mpeg4Picture> pictures;
    stream_.take(number_++, frameText, chunks, &pictures);
    std::vector<std::string> out;
    for (const Mpeg4Picture& picture : pictures) {
      EXPECT_EQ(picture.key, picture.data[0] == 'I');
      if (!picture.header.empty()) {
        EXPECT_EQ(picture.header, header(picture.header[19]));
      }
      out.push_back((picture.header.empty() ? "" : picture.header.substr(19) + "|") + picture.data);
    }
    return out;
  }
  std::vector<std::string> take(char name, const std::vector<std::string>& words) {
    return take(text(name), words);
  }
  void miss() { ++number_; }
  // Brings the stream into the middle of its pictures, under header 'a'.
  void run() {
    take('a', {"p"});
    take('a', {"Ifirst"});
    EXPECT_THAT(take('a', {"P1"}), ElementsAre("a|Ifirst"));
  }

  std::uint32_t number_ = 0xfffffffe;  // wraps soon
  Mpeg4Stream stream_;
};

TEST_F(StreamOfPictures, BeginsWithTheHeaderAndAKeyPicture) {
  EXPECT_THAT(take('a', {"p0", "P1", "p1"}), IsEmpty());
  EXPECT_THAT(take('a', {"p1", "P2"}), IsEmpty());
  EXPECT_THAT(take('a', {"p2", "I3", "i3"}), IsEmpty());
  EXPECT_THAT(take('a', {"i3", "P4", "P5"}), ElementsAre("a|I3i3i3", "P4"));
  EXPECT_THAT(take('a', {"p5", "I6"}), ElementsAre("P5p5"));
  EXPECT_THAT(take('a', {"P7", "P8"}), ElementsAre("I6", "P7"));
}

TEST_F(StreamOfPictures, GathersAPictureOverManyFrames) {
  run();
  take('a', {"I"});
  for (int i = 0; i < 1000; ++i) EXPECT_THAT(take('a', {"i", "i", "i"}), IsEmpty());
  EXPECT_THAT(take('a', {"P"}), ElementsAre("I" + std::string(3000, 'i')));
}

TEST_F(StreamOfPictures, NeverGoesOnWithoutEnd) {
  run();
  const std::string much = "i" + std::string(1 << 20, 'x');
  take('a', {"I"});
  for (int i = 0; i < 17; ++i) take('a', {much});
  EXPECT_THAT(take('a', {"P"}), IsEmpty());
  take('a', {"I"});
  EXPECT_THAT(take('a', {"P"}), ElementsAre("I"));
}

TEST_F(StreamOfPictures, GoesOnForAnyTime) {
  run();
  const std::string much = "P" + std::string(1 << 20, 'x');
  for (int i = 0; i < 20; ++i) EXPECT_EQ(take('a', {much}).size(), 1U) << i;
}

TEST_F(StreamOfPictures, GoesOnAtTheNextKeyPictureAfterMissedFrames) {
  run();
  miss();
  EXPECT_THAT(take('a', {"p1", "P2"}), IsEmpty());
  EXPECT_THAT(take('a', {"P3", "I4"}), IsEmpty());
  EXPECT_THAT(take('a', {"P5"}), ElementsAre("I4"));
}

// Its end was missed, or was not: nobody knows.
TEST_F(StreamOfPictures, LeavesOutThePictureBeforeMissedFrames) {
  run();
  take('a', {"I2", "i2"});
  miss();
  EXPECT_THAT(take('a', {"i2", "P3"}), IsEmpty());
  miss();
  EXPECT_THAT(take('a', {"I4"}), IsEmpty());
  EXPECT_THAT(take('a', {"P5"}), ElementsAre("I4"));
}

TEST_F(StreamOfPictures, ComesOfAnotherHeaderWhenTheChangeWasBetweenTwoFrames) {
  run();
  EXPECT_THAT(take('b', {"I1", "P2", "P3"}), IsEmpty());  // the picture before may have no end
  EXPECT_THAT(take('b', {"P4"}), ElementsAre("b|I1", "P2", "P3"));
  EXPECT_THAT(take('b', {"I5"}), ElementsAre("P4"));
  EXPECT_THAT(take('b', {"P6"}), ElementsAre("I5"));
}

TEST_F(StreamOfPictures, ComesOfAnotherHeaderWhenTheLastChunkOfAFrameIsTheFirstAfterTheChange) {
  run();
  EXPECT_THAT(take('b', {"Iold", "Inew"}), IsEmpty());
  EXPECT_THAT(take('b', {"inew", "P1"}), ElementsAre("b|Inewinew"));
}

TEST_F(StreamOfPictures, LeavesOutAKeyPictureWhoseFrameEndedWithAChange) {
  run();
  EXPECT_THAT(take('b', {"Iold", "Pold", "Pold"}), IsEmpty());
  EXPECT_THAT(take('b', {"pold", "Inew"}), IsEmpty());
  EXPECT_THAT(take('b', {"P1"}), ElementsAre("b|Inew"));
}

TEST_F(StreamOfPictures, GoesOnUnderTheOldHeaderUntilAKeyPictureComes) {
  run();
  EXPECT_THAT(take('b', {"P2", "P3"}), ElementsAre("P1", "P2"));
  // Of the picture before the rest is not there.
  EXPECT_THAT(take('b', {"Inew"}), IsEmpty());
  EXPECT_THAT(take('b', {"P4"}), ElementsAre("b|Inew"));
}

TEST_F(StreamOfPictures, LeavesOutWhatTwoChangesTouch) {
  run();
  take('b', {"I1", "P2"});
  EXPECT_THAT(take('c', {"P3"}), IsEmpty());
  EXPECT_THAT(take('c', {"I4"}), IsEmpty());
  EXPECT_THAT(take('c', {"P5"}), ElementsAre("c|I4"));
  take('b', {"I6"});
  take('c', {"I7"});
  EXPECT_THAT(take('c', {"P8"}), ElementsAre("I7"));  // under the header that was told last
}

TEST_F(StreamOfPictures, LeavesOutAPictureDuringWhichTheHeaderChangedThereAndBack) {
  run();
  EXPECT_THAT(take('a', {"P2", "p2"}), ElementsAre("P1"));
  EXPECT_THAT(take('b', {"p2"}), IsEmpty());
  EXPECT_THAT(take('a', {"I3"}), IsEmpty());
  EXPECT_THAT(take('a', {"P4"}), ElementsAre("I3"));
}

TEST_F(StreamOfPictures, IsFollowedThroughSettledKeyPicturesAlone) {
  take('a', {"I1", "I2"});
  EXPECT_THAT(take('a', {"I3", "I4"}), ElementsAre("a|I3"));
  EXPECT_THAT(take('a', {"I5"}), ElementsAre("I4"));
}

TEST_F(StreamOfPictures, IsBrokenOffByOtherFrames) {
  run();
  EXPECT_THAT(take('a', {}), IsEmpty());
  EXPECT_THAT(take('a', {"p1", "P2"}), IsEmpty());
  take('a', {"I3"});
  EXPECT_THAT(take('a', {"P4"}), ElementsAre("I3"));
}

// A reading camera begins with no header; the JPEG mode has one without a start code.
TEST_F(StreamOfPictures, HasNoKeyPictureWithoutAHeader) {
  const std::string jpegHeader = "00000000000000000000000000014003c0000000";
  for (const std::string& none : {std::string(), jpegHeader, text('a').substr(2), text('a') + "00",
                                  "x" + text('a').substr(1), std::string(40, '0')}) {
    take(none, {"I1"});
    EXPECT_THAT(take(none, {"P2", "I3", "P4"}), IsEmpty()) << none;
    EXPECT_THAT(take(none, {"P5"}), IsEmpty()) << none;
  }
  run();
}

TEST_F(StreamOfPictures, IsBrokenOffByAContinuationOfAnotherKind) {
  run();
  EXPECT_THAT(take('a', {"i1", "P2"}), IsEmpty());
  take('a', {"I3", "p"});
  EXPECT_THAT(take('a', {"P4"}), IsEmpty());
  take('a', {"I5"});
  EXPECT_THAT(take('a', {"P6"}), ElementsAre("I5"));
}

// An encoder behind a camera that reads chunk by chunk, with settings that change between frames
// and a standard that changes at any time and is followed by a silence, so that it can't change
// there and back within a frame.
class RandomCamera {
 public:
  struct Frame {
    char name;  // of the header
    std::vector<std::string> words;
  };

  explicit RandomCamera(unsigned seed) : random_(seed) {}

  Frame frame() {
    changed_ = false;
    if (chance(30)) changeHeader();  // a setting: at once
    Frame frame{told_, {}};
    for (int count = 1 + pick(3); count > 0; --count) {
      if (silent_ && !frame.words.empty() && chance(2)) break;  // the frame's time is over
      frame.words.push_back(chunk());
      const bool lastForItsTime = silent_;
      silent_ = false;
      if (lastForItsTime) break;
      if (chance(40)) silent_ = changeHeader();
    }
    if (chance(60)) silent_ = changeHeader() || silent_;
    if (header_ != told_ && name_ != header_) left_ = 0;  // the rest of an old picture is dropped
    told_ = header_;
    frame.name = told_;
    return frame;
  }

 private:
  int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }
  bool chance(int of) { return pick(of) == 0; }

  bool changeHeader() {
    if (changed_) return false;
    changed_ = true;
    header_ = static_cast<char>('a' + (header_ - 'a' + 1 + pick(2)) % 3);
    keyNext_ = true;
    return true;
  }

  // A picture is its type, its header and its number; each chunk tells how many are to come.
  std::string chunk() {
    const bool begins = left_ == 0;
    if (begins) {
      key_ = keyNext_ || chance(6);
      keyNext_ = false;
      name_ = header_;
      ++picture_;
      left_ = 1 + pick(4);
    }
    --left_;
    const char* const types = key_ ? "Ii" : "Pp";
    return std::string(1, types[begins ? 0 : 1]) + name_ + std::to_string(picture_) + "." +
           std::to_string(left_) + ";";
  }

  std::mt19937 random_;
  char header_ = 'a';
  char told_ = 'a';
  bool keyNext_ = true;
  bool changed_ = false;  // in the present frame
  bool silent_ = false;
  bool key_ = true;
  char name_ = 'a';
  int picture_ = 0;
  int left_ = 0;
};

TEST_F(StreamOfPictures, DecodesWhateverChangesAndIsMissed) {
  std::size_t shown = 0;
  char told = 0;  // the header given out
  for (unsigned seed = 1; seed <= 40; ++seed) {
    RandomCamera camera(seed);
    std::mt19937 random(seed);
    int before = -1;  // number of the picture given out before
    for (int i = 0; i < 1000; ++i) {
      const RandomCamera::Frame frame = camera.frame();
      if (random() % 50 == 0) {
        miss();
        continue;
      }
      for (std::string picture : take(frame.name, frame.words)) {
        ++shown;
        if (picture[1] == '|') {
          told = picture[0];
          picture.erase(0, 2);
        }
        const int number = std::atoi(picture.c_str() + 2);
        ASSERT_EQ(picture[1], told) << "seed " << seed << ", " << picture;
        ASSERT_EQ(picture.substr(picture.size() - 3), ".0;") << "seed " << seed << ", " << picture;
        ASSERT_GT(number, before) << "seed " << seed << ", " << picture;
        if (picture[0] == 'P') {
          ASSERT_EQ(number, before + 1) << "seed " << seed << ", " << picture;
        }
        before = number;
      }
    }
    miss();
  }
  EXPECT_GT(shown, 5000U);
}

}  // namespace
