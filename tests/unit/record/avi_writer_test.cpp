// How MPEG-4 key frames are put together.
#include "record/avi_writer.h"

#include <cstring>
#include <limits>
#include <string>

#include "tests/unit/record/record_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class AviWriter : public RecordFixture {
 protected:
  AviWriter() { writer.addRef(&client); }

  long put(char type, const std::string& data) {
    return writer.write(data.data(), static_cast<long>(data.size()), now(), type);
  }
  static std::string header(char byte = '\0') {
    return std::string(static_cast<std::size_t>(TAviWriter::kHeaderBytes), byte);
  }
  std::vector<std::string> payloads() const {
    std::vector<std::string> result;
    for (const FakeFrame& frame : fake.video2.frames()) result.push_back(frame.payload);
    return result;
  }

  TAviWriter writer;
  char client = 0;
};

TEST_F(AviWriter, WithoutAClientEveryChunkIsIgnored) {
  writer.delRef(&client);
  for (const char type : {'I', 'i', 'P', 'p', 'I', 'P'}) EXPECT_EQ(0, put(type, "chunk"));
  writer.addRef(&client);
  EXPECT_EQ(0, put('P', "chunk")) << "nothing was gathered";
  EXPECT_EQ(0, fake.video2.published());
}

TEST_F(AviWriter, KeyFrameIsWrittenWhenTheNextPictureStarts) {
  put('I', std::string(1000, 'a'));
  put('i', std::string(500, 'b'));
  EXPECT_EQ(0, fake.video2.published());
  put('P', std::string(300, 'c'));
  ASSERT_EQ(1, fake.video2.published());
  EXPECT_EQ(1520, fake.video2.last().length);
  EXPECT_EQ(header() + std::string(1000, 'a') + std::string(500, 'b'), fake.video2.last().payload);
  put('I', std::string(800, 'd'));
  EXPECT_EQ(1, fake.video2.published());
  put('I', std::string(1, 'e'));
  EXPECT_EQ(2, fake.video2.published());
  EXPECT_EQ(header() + std::string(800, 'd'), fake.video2.last().payload);
  put('P', "");
  EXPECT_EQ(3, fake.video2.published());
  EXPECT_EQ(2, fake.video2.last().number);
}

TEST_F(AviWriter, PredictedFramesAreNotWritten) {
  put('I', "a");
  put('P', "b");
  put('p', "c");
  put('p', "d");
  put('P', "e");
  put('I', "f");
  EXPECT_THAT(payloads(), ElementsAre(header() + "a"));
}

TEST_F(AviWriter, GivesTheGatheredLength) {
  EXPECT_EQ(3, put('I', "abc"));
  EXPECT_EQ(5, put('i', "de"));
  EXPECT_EQ(5, put('p', "f"));
  EXPECT_EQ(0, put('P', "g"));
}

TEST_F(AviWriter, ContinuationOfNothingIsAnError) {
  put('i', "");
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 1 TAviWriter::write() IPE"));
  put('P', "");
  EXPECT_EQ(0, fake.video2.published());
}

TEST_F(AviWriter, FailedReadAddsNothing) {
  put('I', "abc");
  EXPECT_EQ(3, writer.write(nullptr, -1, now(), 'i'));
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "abc"));
  writer.write(nullptr, -1, now(), 'I');
  EXPECT_EQ(0, writer.write(nullptr, std::numeric_limits<long>::min(), now(), 'i'));
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 1 TAviWriter::write() IPE"));
}

TEST_F(AviWriter, FrameBeginsWithTheStreamHeader) {
  writer.setHeader(header('h').data(), true);
  put('I', "abc");
  put('I', "de");
  writer.setHeader(header('H').data(), true);
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header('h') + "abc", header('H') + "de"));
}

TEST_F(AviWriter, FrameCarriesTheTimeOfItsPicture) {
  const TDateTime taken = now();
  put('I', "abc");
  fake.advance(2.5);
  put('i', "de");
  fake.advance(2.5);
  put('P', "");
  EXPECT_EQ(taken, fake.video2.last().time);
}

// Otherwise the first picture of each recording would be the last of the one before.
TEST_F(AviWriter, WhatAClientLeftGatheredShowsItsAge) {
  const TDateTime before = now();
  put('I', "abc");
  writer.delRef(&client);
  fake.advance(3600);
  writer.addRef(&client);
  put('i', "de");
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "abcde"));
  EXPECT_EQ(before, fake.video2.last().time);
}

TEST_F(AviWriter, KeyFrameWhoseBeginningNobodySawIsNotPublished) {
  EXPECT_EQ(2, put('i', "bc"));
  EXPECT_EQ(0, put('P', ""));
  put('I', "def");
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "def"));
  put('i', "without its beginning");
  put('I', "ghi");
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "def", header() + "ghi"));
}

TEST_F(AviWriter, KeyFrameOfWhichAChunkPassedByIsNotPublished) {
  for (const char passed : {'i', 'I', 'P'}) {
    put('I', "abc");
    writer.delRef(&client);
    put(passed, "unseen");
    writer.addRef(&client);
    put('i', "de");
    put('P', "");
    EXPECT_THAT(payloads(), IsEmpty()) << passed;
  }
  put('I', "next");
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "next"));
}

TEST_F(AviWriter, KeyFrameIsWholeWhenOnlyPredictedPiecesPassedBy) {
  put('I', "abc");
  writer.delRef(&client);
  put('p', "unseen");
  writer.addRef(&client);
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "abc"));
}

TEST_F(AviWriter, KeyFrameThatWasCutIsNotPublished) {
  put('I', "abc");
  writer.cut();
  EXPECT_EQ(5, put('i', "de"));
  put('I', "next");
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "next"));
}

TEST_F(AviWriter, KeyFrameOfAnotherHeaderIsNotPublished) {
  writer.setHeader(header('h').data(), false);
  put('I', "abc");
  writer.setHeader(header('H').data(), false);
  put('i', "de");
  put('I', "next");
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header('H') + "next"));
}

TEST_F(AviWriter, SameHeaderAgainLeavesTheKeyFrame) {
  writer.setHeader(header('h').data(), false);
  put('I', "abc");
  writer.setHeader(header('h').data(), false);
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header('h') + "abc"));
}

TEST_F(AviWriter, LargestKeyFrameLeavesRoomForTheHeader) {
  put('I', std::string(kUsable - TAviWriter::kHeaderBytes, 'a'));
  put('P', "");
  EXPECT_EQ(1, fake.video2.published());
  EXPECT_EQ(kUsable, fake.video2.last().length);
  put('I', std::string(kUsable - TAviWriter::kHeaderBytes, 'a'));
  EXPECT_EQ(kUsable - TAviWriter::kHeaderBytes + 1, put('i', "b"));
  put('P', "");
  EXPECT_EQ(1, fake.video2.published());
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 2 TWriter::write() video2 buffer overflow"));
}

TEST_F(AviWriter, KeyFrameThatDoesNotFitIsRefusedAsAWhole) {
  put('I', std::string(kUsable - 1, 'a'));
  EXPECT_EQ(kUsable + 1, put('i', "bc"));
  EXPECT_EQ(kUsable + 2, put('i', "d"));
  put('P', "");
  EXPECT_THAT(fake.callsWith("log "),
              ElementsAre("log 3 TAviWriter::add() video2 buffer overflow p:1999, c:2",
                          "log 3 TAviWriter::add() video2 buffer overflow p:2001, c:1",
                          "log 2 TWriter::write() video2 buffer overflow"));
  EXPECT_EQ(0, fake.video2.published());
  put('I', "next");
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "next"));
}

TEST_F(AviWriter, KeyFrameWithoutEndSaturates) {
  constexpr long kMax = std::numeric_limits<std::int32_t>::max();
  put('I', "abc");
  for (int i = 0; i < 5; ++i) {
    const long gathered = writer.write(nullptr, kMax, now(), 'i');  // too long to be looked at
    EXPECT_EQ(kMax - TAviWriter::kHeaderBytes, gathered);
  }
  put('P', "");
  EXPECT_EQ(0, fake.video2.published());
  put('I', "next");
  put('P', "");
  EXPECT_THAT(payloads(), ElementsAre(header() + "next"));
}

TEST_F(AviWriter, BufferMayComeUpLater) {
  fake.video2.detach();
  TAviWriter early;
  early.addRef(&client);
  early.setHeader(header('h').data(), true);
  early.write("abc", 3, now(), 'I');
  early.write("", 0, now(), 'P');
  EXPECT_THAT(fake.callsWith("log "),
              ElementsAre("log 3 TAviWriter::add() video2 buffer overflow p:0, c:3",
                          "log 2 TWriter::write() video2 buffer overflow"));
  fake.video2.attach();
  early.write("def", 3, now(), 'I');
  early.write("", 0, now(), 'P');
  EXPECT_THAT(payloads(), ElementsAre(header('h') + "def"));
}

TEST_F(AviWriter, KeyFrameWithAHoleIsNotPublished) {
  fake.video2.detach();
  TAviWriter early;
  early.addRef(&client);
  early.write("abc", 3, now(), 'I');
  fake.video2.attach();
  EXPECT_EQ(6, early.write("def", 3, now(), 'i'));
  early.write("", 0, now(), 'P');
  EXPECT_THAT(payloads(), IsEmpty());
  early.write("ghi", 3, now(), 'I');
  early.write("", 0, now(), 'P');
  EXPECT_THAT(payloads(), ElementsAre(header() + "ghi"));
}

}  // namespace
