// Frames whose chunks and trailers are another process's word, read by the recorder and by camctl.
#include "capture/chunk_trailers.h"

#include <memory>

#include "tests/fuzz/fuzz.h"
#include "tools/camctl/frame_chunks.h"

namespace {

void requireInside(const char* chunk, std::size_t length, const char* payload,
                   std::size_t largest) {
  require(chunk >= payload && chunk + length <= payload + largest, "a chunk lies in its frame");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const auto length = input.take<std::int32_t>();
  const std::string bytes = input.rest();
  const std::unique_ptr<char[]> payload(new char[bytes.size()]);
  bytes.copy(payload.get(), bytes.size());
  const auto largest = static_cast<long>(bytes.size());

  TChunkReader reader(payload.get(), length, largest);
  TChunk chunk;
  long sum = 0;
  long trailers = 0;
  while (reader.next(&chunk)) {
    require(chunk.length > 0, "a chunk is not empty");
    requireInside(chunk.data, static_cast<std::size_t>(chunk.length), payload.get(), bytes.size());
    require(chunk.data == payload.get() + sum, "chunks follow each other");
    sum += chunk.length;
    trailers += kTrailerBytes;
    require(sum + trailers <= largest, "a chunk does not reach into the trailers");
  }
  require(!reader.complete() || sum == length, "chunks make up the payload");
  require(reader.complete() == TChunkReader::sound(payload.get(), length, largest),
          "both judge alike");

  // As camctl has cut it.
  const std::size_t shown =
      length < 0 ? 0 : std::min<std::size_t>(static_cast<std::size_t>(length), bytes.size());
  const FrameChunks chunks(payload.get(), shown, bytes.size());
  for (const Chunk& one : chunks.chunks())
    requireInside(one.data, one.length, payload.get(), bytes.size());
  return 0;
}
