// How often an upload copies its data: this program's memcpy() and memmove(), which libcurl uses as
// well, count.
#include <cstddef>

#include "platform/ftp.h"
#include "tests/platform/ftp_fixture.h"

namespace {

thread_local std::size_t copied = 0;

void* copy(void* to, const void* from, std::size_t size) {
  copied += size;
  auto* const out = static_cast<char*>(to);
  const auto* const in = static_cast<const char*>(from);
  if (out < in)
    for (std::size_t i = 0; i < size; ++i) out[i] = in[i];
  else
    for (std::size_t i = size; i > 0; --i) out[i - 1] = in[i - 1];
  return to;
}

}  // namespace

extern "C" {
void* memcpy(void* to, const void* from, std::size_t size) { return copy(to, from, size); }
void* memmove(void* to, const void* from, std::size_t size) { return copy(to, from, size); }
void* __memcpy_chk(void* to, const void* from, std::size_t size, std::size_t) {
  return copy(to, from, size);
}
void* __memmove_chk(void* to, const void* from, std::size_t size, std::size_t) {
  return copy(to, from, size);
}
}

namespace {

class FtpCopies : public FtpTest {};

TEST_F(FtpCopies, AnUploadCopiesItsDataOnce) {
  start();
  ASSERT_EQ(open(), 0);
  const std::string data = someBytes(4000000);
  EXPECT_EQ(upload("first.jpg", "makes what is made once"), 0);
  for (const int option : {kFtpPassive, kFtpActive}) {
    copied = 0;
    EXPECT_EQ(upload("x.jpg", data, option), 0);
    EXPECT_GE(copied, data.size()) << "into libcurl's buffer";
    EXPECT_LT(copied, data.size() + 65536) << "and nowhere else";
  }
}

}  // namespace
