// The client list, the frame sizes and the frames of "video2".
#include "record/writer.h"

#include <string>
#include <thread>
#include <vector>

#include "tests/unit/record/record_fixture.h"

namespace {

using testing::ElementsAre;

class Writer : public RecordFixture {
 protected:
  // How many slots of the client list are taken.
  long occupied(TWriter& list) {
    static char others[TWriter::kClients];
    const long before = overflows();
    for (char& other : others) list.addRef(&other);
    const long taken = overflows() - before;
    for (char& other : others) list.delRef(&other);
    return taken;
  }
  long overflows() const { return fake.logged("TWriter::add() clients buffer overflow"); }

  static long put(TWriter& writer, const std::string& data) {
    return writer.write(data.data(), static_cast<long>(data.size()), now(), 'J');
  }

  TWriter writer{500};
  char client = 0;
};

TEST_F(Writer, ClientIsRegisteredOnceHoweverOftenItAsks) {
  writer.addRef(&client);
  writer.addRef(&client);
  EXPECT_EQ(1, occupied(writer));
  writer.delRef(&client);
  EXPECT_FALSE(writer.getRef());
}

TEST_F(Writer, UnknownClientLeavesTheListAsItIs) {
  char stranger = 0;
  writer.addRef(&client);
  writer.delRef(&stranger);
  writer.delRef(nullptr);
  writer.addRef(nullptr);
  EXPECT_TRUE(writer.getRef());
  EXPECT_EQ(1, occupied(writer));
}

TEST_F(Writer, ThirtyFirstClientIsRefused) {
  char clients[TWriter::kClients + 1];
  for (char& each : clients) writer.addRef(&each);
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 2 TWriter::add() clients buffer overflow"));
  writer.delRef(&clients[TWriter::kClients]);  // was not registered
  EXPECT_EQ(TWriter::kClients, occupied(writer));
  for (int i = 0; i < TWriter::kClients; ++i) {
    EXPECT_TRUE(writer.getRef());
    writer.delRef(&clients[i]);
  }
  EXPECT_FALSE(writer.getRef());
}

TEST_F(Writer, NeverThrottlesByTime) {
  EXPECT_TRUE(writer.timeout(TDateTime(0, 0)));
  EXPECT_TRUE(writer.timeout(now()));
}

TEST_F(Writer, FrameCarriesTimeLengthNumberAndData) {
  writer.write("picture", 7, TDateTime(0x01020304, 0x00050607), 'J');
  std::int32_t number = 0;
  std::int32_t epoch = 0;
  TAutoFrame frame(sbVideo2(), 1000, &number, &epoch, 0);
  ASSERT_TRUE(frame);
  const char head[] =
      "\4\3\2\1"
      "\7\6\5\0"
      "\7\0\0\0"
      "\0\0\0\0";
  EXPECT_EQ(std::string(head, 16), std::string(reinterpret_cast<char*>(frame.get()), 16));
  EXPECT_EQ(std::string(144, '\0'), std::string(frame->userdata[0], 144)) << "not the writer's";
  EXPECT_EQ("picture", std::string(frame->payload, 7));
}

TEST_F(Writer, SequenceNumberCountsTheFramesOfEachWriter) {
  TWriter other{500};
  put(writer, "a");
  put(writer, "b");
  put(other, "c");
  put(writer, "d");
  std::vector<int> numbers;
  for (const FakeFrame& frame : fake.video2.frames()) numbers.push_back(frame.number);
  EXPECT_THAT(numbers, ElementsAre(0, 1, 0, 2));
}

TEST_F(Writer, LostFrameUsesUpNoNumber) {
  EXPECT_EQ(1, put(writer, "a"));
  fake.video2.noFreeFrame();
  EXPECT_EQ(0, put(writer, "b"));
  fake.video2.noFreeFrame(false);
  EXPECT_EQ(0, put(writer, std::string(kUsable + 1, 'c')));
  EXPECT_EQ(kUsable, put(writer, std::string(kUsable, 'd')));
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 1 video2 buffer busy",
                                                  "log 2 TWriter::write() video2 buffer overflow"));
  ASSERT_EQ(2, fake.video2.published());
  EXPECT_EQ(1, fake.video2.last().number);
  EXPECT_EQ(std::string(kUsable, 'd'), fake.video2.last().payload);
}

TEST_F(Writer, WaitsTenMillisecondsForAFreeFrame) {
  fake.video2.noFreeFrame();
  const std::int64_t before = fake.clock.monotonicUs();
  put(writer, "a");
  EXPECT_EQ(10000, fake.clock.monotonicUs() - before);
}

TEST_F(Writer, FrameOfNegativeLengthIsNotShown) {
  writer.write("a", -1, now(), 'J');
  std::int32_t number = 0;
  std::int32_t epoch = 0;
  EXPECT_FALSE(TAutoFrame(sbVideo2(), 1000, &number, &epoch, 0));
}

TEST_F(Writer, SizeIsThatOfTheFrameWithoutItsRecord) {
  fake.video.setFrameSize(5160);
  EXPECT_EQ(5000, TWriter::getFrameSize(sbVideo()));
  EXPECT_EQ(kUsable, TWriter::getFrameSize(sbVideo2()));
}

TEST_F(Writer, SizeIsWorkedOutOncePerBuffer) {
  EXPECT_EQ(kUsable, TWriter::getFrameSize(sbVideo2()));
  fake.video2.setFrameSize(100000);
  EXPECT_EQ(kUsable, TWriter::getFrameSize(sbVideo2()));
}

TEST_F(Writer, OtherBuffersHaveNoSize) {
  EXPECT_EQ(0, TWriter::getFrameSize(sbAudio()));
  EXPECT_EQ(0, TWriter::getFrameSize(nullptr));
}

TEST_F(Writer, MissingBufferHasNoSizeUntilItIsThere) {
  SB_HANDLE* const handle = sbVideo2();
  fake.video2.detach();
  EXPECT_EQ(0, TWriter::getFrameSize(sbVideo2()));
  EXPECT_EQ(0, TWriter::getFrameSize(handle)) << "not the current buffer any more";
  EXPECT_EQ(0, put(writer, "a"));
  fake.video2.attach();
  EXPECT_EQ(kUsable, TWriter::getFrameSize(sbVideo2()));
  EXPECT_EQ(1, put(writer, "b"));
}

TEST_F(Writer, FrameSmallerThanItsRecordHasSizeZero) {
  for (const long size : {0L, 1L, 159L, 160L}) {
    fake.video2.setFrameSize(size);
    EXPECT_EQ(0, TWriter::getFrameSize(sbVideo2())) << size;
    EXPECT_EQ(0, put(writer, "a")) << size;
  }
  fake.video2.setFrameSize(161);
  EXPECT_EQ(1, TWriter::getFrameSize(sbVideo2())) << "nothing was kept of the sizes before";
}

TEST_F(Writer, EachFrameWriterIsOne) {
  EXPECT_EQ(aviWriter(), aviWriter());
  EXPECT_EQ(jpgWriter(), jpgWriter());
  EXPECT_NE(static_cast<TWriter*>(aviWriter()), static_cast<TWriter*>(jpgWriter()));
}

TEST_F(Writer, JpegWriterWritesOnlyForItsClients) {
  TJpgWriter jpeg;
  EXPECT_EQ(0, put(jpeg, "a"));
  EXPECT_EQ(0, fake.video2.published());
  jpeg.addRef(&client);
  EXPECT_EQ(1, put(jpeg, "b"));
  jpeg.delRef(&client);
  EXPECT_EQ(0, put(jpeg, "c"));
  ASSERT_EQ(1, fake.video2.published());
  EXPECT_EQ("b", fake.video2.last().payload);
}

// Lets `threads` real threads do the same thing at the same instant, `rounds` times.
void together(int threads, int rounds, const std::function<void(int thread)>& work,
              const std::function<void()>& check) {
  for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
    std::atomic<int> waiting{threads};
    std::vector<std::thread> all;
    for (int i = 0; i < threads; ++i)
      all.emplace_back([&, i] {
        --waiting;
        while (waiting > 0) std::this_thread::yield();
        work(i);
      });
    for (std::thread& thread : all) thread.join();
    check();
  }
}

constexpr int kRounds = 200;

TEST_F(Writer, ThreadsThatRegisterAtTheSameInstantAllSucceed) {
  char clients[3];
  together(
      3, kRounds, [&](int thread) { writer.addRef(&clients[thread]); },
      [&] {
        EXPECT_EQ(3, occupied(writer));
        for (char& each : clients) {
          EXPECT_TRUE(writer.getRef());
          writer.delRef(&each);
        }
        EXPECT_FALSE(writer.getRef());
        fake.clearCalls();
      });
}

TEST_F(Writer, ClientThatRegistersTwiceAtTheSameInstantHasOneSlot) {
  char others[2];
  together(
      4, kRounds,
      [&](int thread) {
        // The others come and go, so that the free slot nearest the end is another one each time.
        if (thread < 2) {
          writer.addRef(&client);
        } else {
          writer.addRef(&others[thread - 2]);
          writer.delRef(&others[thread - 2]);
        }
      },
      [&] {
        EXPECT_EQ(1, occupied(writer));
        writer.delRef(&client);
        fake.clearCalls();
      });
}

TEST_F(Writer, LastFreeSlotGoesToOneOfTwo) {
  char clients[TWriter::kClients + 1];
  for (int i = 2; i <= TWriter::kClients; ++i) writer.addRef(&clients[i]);
  together(
      2, kRounds, [&](int thread) { writer.addRef(&clients[thread]); },
      [&] {
        EXPECT_EQ(1, overflows());
        writer.delRef(&clients[0]);
        writer.delRef(&clients[1]);
        fake.clearCalls();
      });
}

}  // namespace
