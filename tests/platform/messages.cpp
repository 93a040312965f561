// Messages between processes.
#include "platform/message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/linux/process_name.h"
#include "platform/linux/unix_address.h"
#include "tests/platform/support.h"
#include "tests/platform/thread_body.h"

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kFolder[] = "/run/camera/msg/";

// Another process's queue, read as bytes.
class Peer {
 public:
  Peer(const TempRoot& root, const char* name)
      : path_(root.path(kFolder) + name),
        fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    std::filesystem::create_directories(root.path(kFolder));
    UnixAddress address;
    EXPECT_TRUE(address.set(path_.c_str()));
    EXPECT_EQ(bind(fd_, address.get(), address.size()), 0);
    address.clear();
  }
  ~Peer() { close(fd_); }

  std::string receive() const {
    char bytes[100];
    const ssize_t length = recv(fd_, bytes, sizeof bytes, 0);
    return length < 0 ? "" : std::string(bytes, static_cast<std::size_t>(length));
  }

 private:
  std::string path_;
  int fd_;
};

// Sends a datagram of any size to the queue of this process.
void sendBytes(const TempRoot& root, std::size_t size) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  UnixAddress address;
  ASSERT_TRUE(address.set((root.path(kFolder) + processName()).c_str()));
  const std::string bytes(size, 'x');
  ASSERT_EQ(sendto(fd, bytes.data(), size, 0, address.get(), address.size()),
            static_cast<ssize_t>(size));
  address.clear();
  close(fd);
}

// A process has one queue for life, so whoever receives does it in a child of its own.
void inChild(const std::function<void()>& test, std::string* output = nullptr) {
  Child child([&test] {
    test();
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  const int status = child.wait();
  EXPECT_EQ(status, 0) << child.output();
  if (output != nullptr) *output = child.output();
}

TEST(Messages, TravelAsSevenWords) {
  const TempRoot root;
  const Peer peer(root, "socmond");
  ASSERT_EQ(SendMessage("socmond", 52, 1, -2, 8), 0);
  const std::int32_t words[7] = {getpid(), 52, 1, -2, 8, 0, 0};
  const std::string bytes = peer.receive();
  ASSERT_EQ(bytes.size(), sizeof words);
  EXPECT_EQ(std::memcmp(bytes.data(), words, sizeof words), 0);
  EXPECT_THAT(peer.receive(), IsEmpty());
}

TEST(Messages, AreTakenInTheirOrder) {
  const TempRoot root;
  inChild([] {
    TMessage message{};
    EXPECT_EQ(PeekMessage(&message), -1) << "the queue opens";
    for (int i = 0; i < 3; ++i) EXPECT_EQ(SendMessage(processName(), 100 + i, i, 2 * i, 8), 0);
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(PeekMessage(&message), 0);
      EXPECT_EQ(message.sender, getpid());
      EXPECT_EQ(message.id, 100 + i);
      EXPECT_EQ(message.argument1, i);
      EXPECT_EQ(message.argument2, 2 * i);
      EXPECT_EQ(message.type, 8);
      EXPECT_EQ(message.reserved[0] | message.reserved[1], 0);
    }
    message.id = 12345;
    EXPECT_EQ(PeekMessage(&message), -1) << "each is taken once";
    EXPECT_EQ(message.id, 12345) << "and unchanged when there is none";
  });
}

TEST(Messages, ToAMissingPeerFail) {
  const TempRoot root;
  EXPECT_EQ(SendMessage("socmond", 52, 1, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  { const Peer gone(root, "socmond"); }
  EXPECT_EQ(SendMessage("socmond", 52, 1, 0), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(Messages, ToNamesThatAreNoneFail) {
  const TempRoot root;
  const Peer peer(root, "socmond");
  for (const char* name : {"", ".", "..", "../msg/socmond", "/socmond", ".socmond"})
    EXPECT_EQ(SendMessage(name, 52, 1, 0), -1) << name;
  EXPECT_EQ(SendMessage(nullptr, 52, 1, 0), -1);
  EXPECT_EQ(SendMessage(std::string(300, 'x').c_str(), 52, 1, 0), -1);
  EXPECT_THAT(peer.receive(), IsEmpty());
}

TEST(Messages, ToAPeerThatDoesNotKeepUpFailWithoutWaiting) {
  const TempRoot root;
  const Peer peer(root, "socmond");
  int sent = 0;
  const std::uint32_t took = msOf([&sent] {
    while (sent < 100000 && SendMessage("socmond", sent, 0, 0) == 0) ++sent;
  });
  EXPECT_LT(took, 10000U);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 100000);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_THAT(peer.receive(), Not(IsEmpty()));
  EXPECT_EQ(SendMessage("socmond", 1, 0, 0), 0) << "there is room again";
}

TEST(Messages, OfAnotherSizeAreDroppedWithAMessage) {
  const TempRoot root;
  std::string output;
  inChild(
      [&root] {
        TMessage message{};
        EXPECT_EQ(PeekMessage(&message), -1);
        for (const std::size_t size : {std::size_t{0}, sizeof message - 1, sizeof message + 1})
          sendBytes(root, size);
        EXPECT_EQ(SendMessage(processName(), 7, 0, 0), 0);
        EXPECT_EQ(PeekMessage(&message), 0);
        EXPECT_EQ(message.id, 7);
        sendBytes(root, 4000);
        EXPECT_EQ(PeekMessage(&message), -1);
      },
      &output);
  for (const char* text : {"message of 0 bytes dropped", "message of 27 bytes dropped",
                           "message of 29 bytes dropped", "message of 4000 bytes dropped"})
    EXPECT_THAT(output, HasSubstr(text));
}

TEST(Messages, QueueTakesThePlaceOfADeadOrOlderOne) {
  const TempRoot root;
  { const Peer dead(root, processName()); }
  inChild([] {
    TMessage message{};
    EXPECT_EQ(PeekMessage(&message), -1);
    EXPECT_EQ(SendMessage(processName(), 1, 0, 0), 0);
    EXPECT_EQ(PeekMessage(&message), 0);
  });
}

TEST(Messages, QueueIsOfOwnerAndGroupAndLeavesNoDraft) {
  const TempRoot root;
  umask(0);
  inChild([&root] {
    TMessage message{};
    EXPECT_EQ(PeekMessage(&message), -1);
    struct stat found {};
    ASSERT_EQ(stat((root.path(kFolder) + processName()).c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0660U);
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(root.path(kFolder))) {
      EXPECT_EQ(entry.path().filename(), processName());
      ++files;
    }
    EXPECT_EQ(files, 1);
  });
  umask(022);
}

TEST(Messages, WorkBelowAPathThatIsLongerThanAnAddress) {
  const TempRoot root(std::string(150, 'x'));
  const Peer peer(root, "socmond");
  EXPECT_EQ(SendMessage("socmond", 52, 1, 0), 0);
  EXPECT_EQ(peer.receive().size(), sizeof(TMessage));
  inChild([] {
    TMessage message{};
    EXPECT_EQ(PeekMessage(&message), -1);
    EXPECT_EQ(SendMessage(processName(), 1, 0, 0), 0);
    EXPECT_EQ(PeekMessage(&message), 0);
  });
}

TEST(Messages, QueueThatCannotBeMadeIsToldOnceAndTriedAgain) {
  const TempRoot root;
  writeFile(root.path("/run"), "in the way");
  std::string output;
  inChild(
      [&root] {
        TMessage message{};
        for (int i = 0; i < 10; ++i) EXPECT_EQ(PeekMessage(&message), -1);
        std::filesystem::remove(root.path("/run"));
        EXPECT_EQ(PeekMessage(&message), -1);
        EXPECT_EQ(SendMessage(processName(), 1, 0, 0), 0);
        EXPECT_EQ(PeekMessage(&message), 0);
      },
      &output);
  EXPECT_EQ(output.find("can't open the message queue: Not a directory"),
            output.rfind("can't open the message queue: "));
  EXPECT_THAT(output, HasSubstr("can't open the message queue: "));
  EXPECT_THAT(output, Not(HasSubstr("repeated")));
}

TEST(Messages, QueueWhoseNameWasRemovedIsMadeAnew) {
  const TempRoot root;
  std::string output;
  inChild(
      [&root] {
        TMessage message{};
        EXPECT_EQ(PeekMessage(&message), -1);
        for (const char* gone : {"/run/camera/msg", "/run"}) {
          EXPECT_EQ(SendMessage(processName(), 1, 0, 0), 0);
          std::filesystem::remove_all(root.path(gone));
          EXPECT_EQ(PeekMessage(&message), 0) << "what was waiting";
          EXPECT_EQ(PeekMessage(&message), -1);
          EXPECT_EQ(PeekMessage(&message), -1);
          EXPECT_EQ(SendMessage(processName(), 2, 0, 0), 0);
          EXPECT_EQ(PeekMessage(&message), 0);
        }
      },
      &output);
  EXPECT_THAT(output, HasSubstr("the message queue was removed"));
}

TEST(Messages, FromManyThreadsArriveWhole) {
  const TempRoot root;
  const Peer peer(root, "socmond");
  std::atomic<int> sent{0};
  atOnce(4, 50, [&sent](int caller, int) {
    if (SendMessage("socmond", caller, caller, caller, caller) == 0) ++sent;
  });
  for (int n = 0; n < sent; ++n) {
    const std::string bytes = peer.receive();
    ASSERT_EQ(bytes.size(), sizeof(TMessage));
    TMessage message{};
    std::memcpy(&message, bytes.data(), sizeof message);
    EXPECT_EQ(message.id, message.argument1);
    EXPECT_EQ(message.id, message.type);
  }
  EXPECT_THAT(peer.receive(), IsEmpty());
}

}  // namespace
