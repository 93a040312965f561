// How the encoder's chunks become frames.
#include <climits>
#include <random>

#include "tests/fakes/allocations.h"
#include "tests/unit/capture/devices/mpg430_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EncoderFrames : public Mpg430Fixture {
 protected:
  using Trailers = std::vector<Trailer>;
  static const char typeAtStart;  // of the process
  static char typeOf(const std::string& chunk, char previous) {
    return TMpg430::getFrameType(chunk.data(), static_cast<long>(chunk.size()), previous);
  }
  Device device;
};

const char EncoderFrames::typeAtStart = Device::lastType;

TEST_F(EncoderFrames, AStartCodeBeginsAPictureOfTheTypeInTheTwoHighestBits) {
  for (const char previous : {'I', 'i', 'P', 'p'}) {
    for (int fifth = 0; fifth < 256; ++fifth)
      EXPECT_EQ(typeOf(start(static_cast<unsigned char>(fifth), 5, ' '), previous),
                fifth < 0x40 ? 'I' : 'P')
          << fifth;
  }
  EXPECT_EQ(typeOf(start(0x3F, 100, ' '), 'P'), 'I');
  EXPECT_EQ(typeOf(start(0x40, 100, ' '), 'I'), 'P');
  EXPECT_EQ(typeOf(start(0x80, 100, ' '), 'I'), 'P');
}

TEST_F(EncoderFrames, AChunkWithoutStartCodeContinuesThePicture) {
  EXPECT_EQ(typeOf(more(100), 'I'), 'i');
  EXPECT_EQ(typeOf(more(100), 'i'), 'i');
  EXPECT_EQ(typeOf(more(100), 'P'), 'p');
  EXPECT_EQ(typeOf(more(100), 'p'), 'p');
  EXPECT_EQ(typeOf(more(100), 'J'), 'p');
  for (std::size_t wrong = 0; wrong < 4; ++wrong) {
    std::string chunk = key(100);
    chunk[wrong] = '\x02';
    EXPECT_EQ(typeOf(chunk, 'P'), 'p') << wrong;
  }
}

TEST_F(EncoderFrames, AChunkTooShortToTellContinuesThePicture) {
  for (std::size_t length = 1; length < 5; ++length) {
    // Of exactly this size, so that the sanitizer sees a look behind its end.
    const std::string head = key(length);
    const std::vector<char> chunk(head.begin(), head.end());
    EXPECT_EQ(TMpg430::getFrameType(chunk.data(), static_cast<long>(length), 'I'), 'i');
    EXPECT_EQ(TMpg430::getFrameType(chunk.data(), static_cast<long>(length), 'P'), 'p');
  }
}

TEST_F(EncoderFrames, TheVeryFirstChunkContinuesAPredictedPictureIfItHasNoStartCode) {
  Device::lastType = typeAtStart;
  chunks = {{more(10)}, {more(10)}, {more(10)}};
  read(device);
  EXPECT_EQ(trailers(), (Trailers{{'p', 'o', 10}, {'p', 'o', 10}, {'p', 'x', 10}}));
}

TEST_F(EncoderFrames, TypesGoOnFromFrameToFrame) {
  device.setPackage(1);
  std::string types;
  for (const std::string& chunk : {key(9), more(9), more(9), predicted(9), more(9), more(9), key(9),
                                   more(9), key(4), key(9)}) {
    chunks = {{chunk}};
    read(device);
    types += trailers().at(0).type;
  }
  EXPECT_EQ(types, "IiiPppIiiI");
}

TEST_F(EncoderFrames, ThreeChunksShareAFrame) {
  chunks = {{key(1000, 'a')}, {more(200, 'b')}, {predicted(300, 'c')}};
  EXPECT_EQ(read(device), 1500);
  EXPECT_EQ(frame.substr(0, 1500), key(1000, 'a') + more(200, 'b') + predicted(300, 'c'));
  EXPECT_EQ(frame.substr(1500, kSize - 1500 - 18), std::string(kSize - 1500 - 18, 'u'));
  EXPECT_EQ(frame.substr(kSize - 6), std::string("Io\xE8\x03\0\0", 6));
  EXPECT_EQ(frame.substr(kSize - 12, 6), std::string("io\xC8\0\0\0", 6));
  EXPECT_EQ(frame.substr(kSize - 18, 6), std::string("Px\x2C\x01\0\0", 6));
  EXPECT_EQ(asked, (std::vector<std::size_t>{3994, 3988 - 1000, 3982 - 1200}));
}

TEST_F(EncoderFrames, AChunkMayBeOneByte) {
  chunks = {{key(1000)}, {"a"}, {"b"}};
  EXPECT_EQ(read(device), 1002);
  EXPECT_EQ(frame.substr(1000, 3), "abu");
  EXPECT_EQ(trailers(), (Trailers{{'I', 'o', 1000}, {'i', 'o', 1}, {'i', 'x', 1}}));
  chunks = {{"c"}, {"d"}, {"e"}};
  EXPECT_EQ(read(device), 3);
  EXPECT_EQ(trailers(), (Trailers{{'i', 'o', 1}, {'i', 'o', 1}, {'i', 'x', 1}}));
}

TEST_F(EncoderFrames, AChunkMayFillTheFrameToTheLastByte) {
  chunks = {{key(kSize)}, {more(1)}, {more(1)}};
  EXPECT_EQ(read(device), kSize - 6);
  EXPECT_EQ(trailers(), (Trailers{{'I', 'x', kSize - 6}}));
  EXPECT_EQ(frame.substr(0, kSize - 6), key(kSize - 6));
  EXPECT_EQ(asked, std::vector<std::size_t>{kSize - 6});
  EXPECT_EQ(read(device), 6 + 2) << "begins with what the driver has kept";
}

TEST_F(EncoderFrames, ALaterChunkMayFillTheFrameToo) {
  constexpr std::size_t kFirst = 1000;
  chunks = {{key(kFirst)}, {more(kSize)}, {more(1)}, {more(1)}};
  EXPECT_EQ(read(device), kSize - 12);
  EXPECT_EQ(trailers(), (Trailers{{'I', 'o', kFirst}, {'i', 'x', kSize - 12 - kFirst}}));
  EXPECT_EQ(frame.substr(0, kSize - 12), key(kFirst) + more(kSize - 12 - kFirst));
}

TEST_F(EncoderFrames, ATrailerThatWouldLieInTheChunksEndsTheFrame) {
  const struct {
    std::size_t second;
    std::size_t reads;
  } cases[] = {{kSize - 18 - 1000 - 1, 3}, {kSize - 18 - 1000, 2}, {kSize - 18 - 1000 + 1, 2}};
  for (const auto& one : cases) {
    asked.clear();
    chunks = {{key(1000)}, {more(one.second)}, {"a"}};
    const int expected = static_cast<int>(1000 + one.second + (one.reads == 3 ? 1 : 0));
    EXPECT_EQ(read(device), expected);
    EXPECT_EQ(asked.size(), one.reads) << one.second;
    EXPECT_EQ(trailers().size(), one.reads);
    chunks.clear();
  }
}

TEST_F(EncoderFrames, ThePackageSaysHowManyChunksShareAFrame) {
  for (const int package : {1, 2, 3, 5, 40}) {
    device.setPackage(package);
    chunks.assign(static_cast<std::size_t>(package), {more(7)});
    EXPECT_EQ(read(device), 7 * package);
    const Trailers found = trailers();
    ASSERT_EQ(found.size(), static_cast<std::size_t>(package));
    for (const Trailer& trailer : found) EXPECT_EQ(trailer.length, 7u);
  }
}

TEST_F(EncoderFrames, AFrameWithoutPackageHoldsOneChunk) {
  for (const int package : {0, -1, INT_MIN}) {
    device.setPackage(package);
    chunks = {{more(7)}};
    EXPECT_EQ(read(device), 7);
    EXPECT_EQ(trailers(), (Trailers{{'p', 'x', 7}}));
  }
}

// What counts is when a read begins, not when its chunk is there.
TEST_F(EncoderFrames, AReadThatBegins61MsAfterTheFirstFillsTheLastChunk) {
  chunks = {{key(10), 0.0609}, {more(20)}, {more(30)}};
  EXPECT_EQ(read(device), 60);
  EXPECT_EQ(trailers().size(), 3u);
  chunks = {{key(10), 0.061}, {more(20)}};
  EXPECT_EQ(read(device), 30) << "the late chunk still belongs to the frame";
  EXPECT_EQ(trailers(), (Trailers{{'I', 'o', 10}, {'i', 'x', 20}}));
  chunks = {{key(10), 5}, {more(20), 5}};
  EXPECT_EQ(read(device), 30);
  EXPECT_EQ(trailers(), (Trailers{{'I', 'o', 10}, {'i', 'x', 20}}));
  device.setPackage(10);
  chunks.assign(4, {more(1), 0.0305});  // reads begin at 0, 30.5, 61 ms
  chunks.pop_back();
  EXPECT_EQ(read(device), 3);
}

// The first read never strikes the limit, however long the colours took before it.
TEST_F(EncoderFrames, TheTimeOfTheColoursDoesNotCount) {
  device.setHue(1);
  onRequest = [this](unsigned) { fake.advance(0.1); };
  chunks = {{key(10)}, {more(20)}, {more(30)}};
  EXPECT_EQ(read(device), 60);
}

TEST_F(EncoderFrames, AClockThatIsSetLeavesTheFrameWhole) {
  for (const long step : {-3600L, -1L}) {
    chunks = {{key(10), 0, [this, step] { fake.stepWallClock(step); }}, {more(20)}, {more(30)}};
    EXPECT_EQ(read(device), 60);
  }
  chunks = {{key(10), 0, [this] { fake.stepWallClock(3600); }}, {more(20)}};
  EXPECT_EQ(read(device), 30) << "only shorter";
  EXPECT_EQ(trailers(), (Trailers{{'I', 'o', 10}, {'i', 'x', 20}}));
}

TEST_F(EncoderFrames, TheTimeIsThatOfTheLastRead) {
  const auto now = [] {
    TDateTime time;
    time.set();
    return time;
  };
  TDateTime begun;
  chunks = {{key(10), 0.02, [&] { begun = now(); }}, {more(20), 0.02}, {more(30), 0.02}};
  read(device);
  EXPECT_EQ((*device.getTime() - begun).getTotal(kFieldTotalMs), 20);
  EXPECT_EQ((now() - *device.getTime()).getTotal(kFieldTotalMs), 20);
}

TEST_F(EncoderFrames, AnEndBetweenTwoChunksEndsTheFrame) {
  chunks = {{key(10), 0, [] { TApplication::stopped = true; }}};
  EXPECT_EQ(read(device), 10);
  EXPECT_EQ(trailers(), (Trailers{{'I', 'x', 10}}));
  TApplication::stopped = false;
  chunks = {{key(10)}, {more(20), 0, [] { TApplication::stopped = true; }}};
  EXPECT_EQ(read(device), 30);
  EXPECT_EQ(trailers(), (Trailers{{'I', 'o', 10}, {'i', 'x', 20}}));
}

TEST_F(EncoderFrames, NothingIsReadOnceTheProcessEnds) {
  TApplication::stopped = true;
  EXPECT_EQ(read(device), 0);
  EXPECT_THAT(asked, IsEmpty());
  EXPECT_EQ(frame, std::string(kSize, 'u'));
}

TEST_F(EncoderFrames, AFrameWithoutRoomHoldsNothing) {
  for (const long size : {0L, 1L, 5L, 6L}) EXPECT_EQ(read(device, size), 0);
  EXPECT_EQ(device.getImage(nullptr, -1), 0);
  EXPECT_THAT(asked, IsEmpty());
  chunks = {{key(10)}};
  EXPECT_EQ(read(device, 7), 1);
  EXPECT_EQ(trailers(), (Trailers{{'p', 'x', 1}}));
}

TEST_F(EncoderFrames, AFrameOfAnotherSizeIsToldOfAndFilled) {
  for (const long size : {kSize - 1, kSize + 1, 100L}) {
    fake.takeCalls();
    chunks = {{key(10)}, {more(20)}, {more(30)}};
    EXPECT_EQ(read(device, size), 60);
    EXPECT_EQ(trailers(), (Trailers{{'I', 'o', 10}, {'i', 'o', 20}, {'i', 'x', 30}}));
    EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 3 TMpg430::getImage() IPE"));
  }
  fake.takeCalls();
  chunks = {{key(10)}, {more(20)}, {more(30)}};
  read(device);
  EXPECT_THAT(fake.callsWith("log "), IsEmpty());
}

TEST_F(EncoderFrames, AFailingReadIsRepeatedAtOnceAndWithoutEnd) {
  constexpr long kFailures = 100000;
  fake.keepCalls(false);
  long told = 0;
  fake.onCall([&](const std::string& call) {
    if (call == "log 2 read(MPG430) return -1") ++told;
  });
  chunks = {{key(10)}, {more(20), 0, [this] { fake.fails("os::read", kFailures); }}, {more(30)}};
  const auto before = fake.clock.monotonicUs();
  EXPECT_EQ(read(device), 60);
  EXPECT_EQ(told, kFailures);
  EXPECT_EQ(fake.clock.monotonicUs(), before) << "without a pause";
  EXPECT_EQ(trailers(), (Trailers{{'I', 'o', 10}, {'i', 'o', 20}, {'i', 'x', 30}}));
}

TEST_F(EncoderFrames, AnEncoderThatRefusedItsStartIsStartedAgainASecondLater) {
  results[kMpg430StreamStart] = -1;
  device.enableStream(1);
  takeRequests();
  chunks = {{"", 0.9}, {"", 0.1}, {"", 1, [this] { results.clear(); }}, {""}, {key(30)}};
  EXPECT_EQ(read(device), 30);
  EXPECT_EQ(fake.logged("ioctl(MPG430_STREAM_START) fail"), 1);
  EXPECT_THAT(takeRequests(), ElementsAre("ioctl(01100000,1)", "ioctl(01100000,1)"));
}

TEST_F(EncoderFrames, AnEncoderThatIsStoppedIsNotStartedByItsReads) {
  results[kMpg430StreamStart] = -1;
  device.enableStream(1);
  device.enableStream(0);
  takeRequests();
  chunks = {{"", 5}, {"", 5}, {key(10)}};
  read(device);
  EXPECT_THAT(takeRequests(), IsEmpty());
}

TEST_F(EncoderFrames, AnEmptyReadIsRepeatedForTheSamePlace) {
  chunks = {{key(10)}, {""}, {""}, {more(20)}, {""}, {more(30)}};
  EXPECT_EQ(read(device), 60);
  EXPECT_EQ(fake.logged("read(MPG430) return 0"), 3);
  EXPECT_EQ(asked, (std::vector<std::size_t>{3994, 3978, 3978, 3978, 3952, 3952}));
  EXPECT_EQ(trailers(), (Trailers{{'I', 'o', 10}, {'i', 'o', 20}, {'i', 'x', 30}}));
}

TEST_F(EncoderFrames, TheEndOfTheProcessDoesNotEndARowOfFailures) {
  chunks = {{"", 0, [] { TApplication::stopped = true; }}, {""}, {""}, {key(10)}};
  EXPECT_EQ(read(device), 10);
  EXPECT_EQ(fake.logged("read(MPG430) return 0"), 3);
  EXPECT_EQ(trailers(), (Trailers{{'I', 'x', 10}}));
}

TEST_F(EncoderFrames, TheLimitCountsFromTheFirstReadAlsoWhenThatFailed) {
  chunks = {{"", 0.061}, {key(10)}};
  EXPECT_EQ(read(device), 10);
  EXPECT_EQ(trailers(), (Trailers{{'I', 'x', 10}}));
}

TEST_F(EncoderFrames, ADriverThatClaimsTooMuchDoesNotLeadOutOfTheFrame) {
  for (const long claim : {kSize - 6 + 1L, kSize + 0L, static_cast<long>(INT_MAX)}) {
    fake.onRead([&](int, char* buffer, std::size_t size) {
      std::memset(buffer, 'l', size);
      return claim;
    });
    EXPECT_EQ(read(device), kSize - 6);
    EXPECT_EQ(trailers(), (Trailers{{'p', 'x', kSize - 6}}));
  }
  int reads = 0;
  fake.onRead([&](int, char* buffer, std::size_t size) {
    std::memset(buffer, 'l', size);
    return ++reads == 1 ? 100 : static_cast<long>(size) + 50;
  });
  EXPECT_EQ(read(device), kSize - 12);
  EXPECT_EQ(trailers(), (Trailers{{'p', 'o', 100}, {'p', 'x', kSize - 12 - 100}}));
}

TEST_F(EncoderFrames, ADriverThatGivesOtherErrorsIsAskedAgain) {
  int reads = 0;
  fake.onRead([&](int, char* buffer, std::size_t) {
    buffer[0] = 'l';
    return ++reads < 4 ? -5L * reads : 1L;
  });
  read(device);
  for (const char* result : {"-5", "-10", "-15"})
    EXPECT_EQ(fake.logged("read(MPG430) return " + std::string(result)), 1);
}

// The same frames by another way: what goes in comes out in order, and the trailers tell how.
TEST_F(EncoderFrames, NoByteIsLostAtRandom) {
  std::mt19937 random(4711);
  const auto upTo = [&](unsigned most) { return random() % (most + 1); };
  std::string given, got;
  for (int i = 0; i < 1000; ++i) {
    device.setPackage(1 + static_cast<int>(upTo(6)));
    const std::size_t before = chunks.size();
    for (std::size_t n = before; n < 8; ++n) {
      const std::size_t length = upTo(3) == 0 ? upTo(5000) : upTo(100);
      std::string bytes = upTo(1) == 0 ? key(length) : more(length);
      for (std::size_t at = 5; at < bytes.size(); ++at) bytes[at] = static_cast<char>(random());
      given += bytes;
      chunks.push_back({bytes, static_cast<double>(upTo(40)) / 1000});
    }
    const int length = read(device);
    ASSERT_GT(length, 0);
    got += frame.substr(0, static_cast<std::size_t>(length));
    std::uint32_t sum = 0;
    const Trailers found = trailers();
    for (const Trailer& trailer : found) {
      sum += trailer.length;
      ASSERT_THAT(std::string("IiPp"), testing::HasSubstr(std::string(1, trailer.type)));
      ASSERT_EQ(trailer.more, &trailer == &found.back() ? 'x' : 'o');
    }
    ASSERT_EQ(sum, static_cast<std::uint32_t>(length));
    ASSERT_LE(sum + 6 * found.size(), static_cast<std::size_t>(kSize));
  }
  for (const Chunk& rest : chunks) got += rest.data;
  EXPECT_EQ(got, given);
}

TEST_F(EncoderFrames, AllocatesNothingPerFrame) {
  aviWriter()->addRef(this);
  fake.keepCalls(false);
  const std::string bytes = key(100);
  int reads = 0;
  fake.onRead([&](int, char* buffer, std::size_t) {
    bytes.copy(buffer, bytes.size());
    if (++reads % 5 != 0) buffer[3] = 0;  // one key frame in five chunks
    return static_cast<long>(bytes.size());
  });
  std::string memory(kSize, ' ');
  char text[48];
  const auto pass = [&] {
    device.getImage(&memory[0], kSize);
    device.getUserdata(0, text);
  };
  for (int i = 0; i < 10; ++i) pass();
  const long before = allocations();
  for (int i = 0; i < 1000; ++i) {
    if (i % 100 == 0) TMpg430::fHeadr = TMpg430::fImage = true;
    pass();
  }
  EXPECT_EQ(allocations(), before);
  EXPECT_GT(fake.video2.published(), 500);
  aviWriter()->delRef(this);
}

}  // namespace
